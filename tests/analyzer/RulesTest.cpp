// The rules, compared with an independent writing of them on random faces.
#include <SelvioFacialCapture/imaging/Image.h>
#include <SelvioFacialCapture/rules/FaceChecks.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <set>

#include "analyzer/AnalyzerFixture.h"
#include "analyzer/rules/DeviceOrientation.h"
#include "analyzer/rules/StatusEvents.h"

namespace selvio::rules {
namespace {

std::mt19937 generator{1};

int below(int n) {
    return std::uniform_int_distribution(0, n - 1)(generator);
}
bool oneIn(int n) {
    return below(n) == 0;
}
template <typename T>
T any(std::initializer_list<T> values) {
    return values.begin()[below(static_cast<int>(values.size()))];
}

/// Each number equal but for rounding, or both not a number.
void expectSame(const std::vector<double>& actual, const std::vector<double>& expected) {
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const double is = actual[i], right = expected[i];
        const bool close = std::fabs(is - right) <= 1e-9 * std::fmax(1, std::fabs(right));
        EXPECT_TRUE(is == right || close || (std::isnan(is) && std::isnan(right))) << i << ": " << is << ", " << right;
    }
}

double larger(double a, double b) {
    return a > b ? a / b : b / a;
}

TEST(FaceChecks, EveryFaceIsMeasuredAndJudgedByItsPoints) {
    std::set<std::int64_t> seen;
    for (int i = 0; i < 50000 && !testing::Test::HasFailure(); ++i) {
        SCOPED_TRACE(testing::Message() << "face " << i);
        // Coordinates on a coarse grid, so that many a value stands at its limit exactly; now and then an odd one.
        const bool odd = oneIn(10);
        const auto grid = [&](int from, int to) {
            if (odd && oneIn(6)) return any({0.0, -50.0, 1e300, 1e-300, std::numeric_limits<double>::infinity()});
            return from + 10.0 * below((to - from) / 10 + 1);
        };
        const auto points = [&](std::size_t size, const std::map<std::size_t, Point>& known) {
            std::vector<Point> all(odd && oneIn(4) ? static_cast<std::size_t>(below(20)) : size, Point{333, 444});
            for (const auto& [index, point] : known)
                if (index < all.size()) all[index] = point;
            return odd && oneIn(6) ? std::nullopt : std::optional(all);
        };
        const Point left{grid(80, 300), grid(600, 1000)};
        const Point right{grid(700, 920), any({left.y, left.y * 1.25, grid(600, 1000)})};
        const Point tip{grid(450, 550), left.y + grid(100, 400)}, low{500, left.y + any({500.0, grid(200, 700)})};
        const double side = grid(10, 100);
        const FacePoints face{
            oneIn(2) ? points(17, {{16, left}, {0, right}, {8, low}}) : points(11, {{0, left}, {10, right}, {5, low}}),
            points(9, {{4, tip}, {2, {tip.x - side, 0}}, {6, {tip.x + any({side, side * 1.8, grid(10, 100)}), 0}}}),
            oneIn(2) ? points(14, {{13, {1, 2}}, {7, {3, 4}}}) : points(10, {{9, {5, 6}}, {5, {7, 8}}})};
        const auto strictness = [] { return oneIn(2) ? 500 : 100 * below(11); };
        SelvioFacialCaptureParameters limits;
        limits.setRoll(strictness());
        limits.setPitch(strictness());
        limits.setYaw(strictness());
        limits.setMinFill(400 + 10 * below(41));
        limits.setMaxFill(500 + 10 * below(41));
        const double small = odd && oneIn(5) ? 0 : 1000, big = any<double>({1200, 1700, 1780, 1790, 2170});
        const bool moving = oneIn(5), tall = big / small > 1.78;

        const auto at = [](const std::optional<std::vector<Point>>& list, std::size_t index) {
            return list && index < list->size() ? list->at(index) : Point();
        };
        const bool newer = face.contour && face.contour->size() == 17;
        const bool newerLips = face.outerLips && face.outerLips->size() == 14;
        const Point a = at(face.contour, newer ? 16 : 0), b = at(face.contour, newer ? 0 : 10);
        const Point chin = at(face.contour, newer ? 8 : 5), nose = at(face.nose, 4);
        const double roll = larger(a.y, b.y), rollLimit = 1.25 + 0.0005 * static_cast<double>(500 - limits.roll());
        const double yaw = larger(std::fabs(at(face.nose, 6).x - nose.x), std::fabs(at(face.nose, 2).x - nose.x));
        const double yawLimit = 1.8 + 0.001 * static_cast<double>(500 - limits.yaw());
        const double pitch = std::fabs((chin.y - a.y) / (nose.y - chin.y));
        const double pitchLow = 1.2 - 0.0004 * static_cast<double>(500 - limits.pitch());
        const double pitchHigh = 2.3 + 0.0006 * static_cast<double>(500 - limits.pitch());
        const double minFill = static_cast<double>(limits.minFill()) / 1000;
        const double maxFill = static_cast<double>(limits.maxFill()) / 1000;
        const double fill = std::fabs(b.x - a.x) / ((tall ? 1.218 : 1.0) * small);
        const double vertical = larger(a.y, std::fabs(big - a.y));
        const double margin = std::min(a.x / small, (small - b.x) / small), marginLimit = tall ? 0.0 : 0.11;
        std::vector<SelvioFacialCaptureStatus> statuses;
        for (const auto& [wrong, status] : {std::pair{roll > rollLimit, 3},
                                            {pitch < pitchLow || pitch > pitchHigh, 4},
                                            {roll <= rollLimit && yaw > yawLimit, 5},
                                            {fill < minFill, 6},
                                            {fill > maxFill, 7},
                                            {vertical > 1.5, 8},
                                            {margin < marginLimit, 8},
                                            {moving, 9}})
            if (wrong) statuses.push_back(static_cast<SelvioFacialCaptureStatus>(status));

        const FaceChecksResult is = checkFace({face, limitsOf(limits), big, small, moving});
        EXPECT_EQ(
            std::tuple(is.statuses, is.noseMiddle, is.lipLeft, is.lipRight),
            std::tuple(statuses, nose, at(face.outerLips, newerLips ? 13 : 9), at(face.outerLips, newerLips ? 7 : 5)));
        const FaceMeasures& m = is.measures;
        expectSame(
            {m.rollRatio, m.rollLimit, m.yawRatio, m.yawLimit, m.pitchRatio, m.pitchLow, m.pitchHigh, m.horizontalFill,
             m.minFill, m.maxFill, m.verticalRatio, m.verticalLimit, m.horizontalMargin, m.marginLimit},
            {roll, rollLimit, yaw, yawLimit, pitch, pitchLow, pitchHigh, fill, minFill, maxFill, vertical, 1.5, margin,
             marginLimit});
        seen.insert(statuses.begin(), statuses.end());
        if (statuses.empty()) seen.insert(0);
    }
    EXPECT_EQ(seen, (std::set<std::int64_t>{0, 3, 4, 5, 6, 7, 8, 9}));
}

TEST(FaceChecks, AFrameIsJudgedByItsOneFaceOnTheScreen) {
    PreviewGeometry geometry;
    geometry.setScreen({1000, 1700});
    geometry.setResolution({1000, 1700});
    const auto good = ScreenFace{}.observation();
    const auto far = ScreenFace{.left = {350, 700}, .right = {650, 700}}.observation();
    std::tuple<std::vector<FaceObservation>, bool, std::vector<SelvioFacialCaptureStatus>> rows[] = {
        {{good}, false, {}},
        {{good}, true, {SelvioFacialCaptureStatusHoldStill}},
        {{far}, false, {SelvioFacialCaptureStatusMoveCloser}},
        {{}, true, {SelvioFacialCaptureStatusFaceNotFound}},
        {{good, good}, false, {SelvioFacialCaptureStatusMoreThanOneFace}}};
    FakeSequenceRequestHandler handler;
    const auto picture = PixelBuffer::create(1000, 1700, kPixelFormat32BGRA);
    for (auto& [faces, moving, statuses] : rows) {
        const FacesJudgement judged = judgeFaces(faces, geometry, {}, moving);
        EXPECT_EQ(std::tuple(judged.count, judged.statuses), std::tuple(faces.size(), statuses));
        if (moving) continue;
        if (statuses.empty()) statuses = {SelvioFacialCaptureStatusGoodFrame};
        handler.setAnswer([&faces = faces](const FaceLandmarksRequest& asked) {
            EXPECT_EQ(std::tuple(asked.exifOrientation, asked.isStillImage), std::tuple(5U, true));
            return FaceLandmarksResult{faces, std::nullopt};
        });
        EXPECT_EQ(judgePicture(picture, handler, {}).value().statuses, statuses);
    }
    handler.setAnswer([](const auto&) { return Error{"no model"}; });
    EXPECT_EQ(judgePicture(picture, handler, {}).error().localizedDescription, "no model");
    handler.setAnswer([](const auto&) { return FaceLandmarksResult{{}, Error{"blurred"}}; });
    EXPECT_EQ(judgePicture(picture, handler, {}).error().localizedDescription, "blurred");
}

TEST(PreviewGeometry, APointOfThePictureIsFoundOnTheScreenThatShowsItsMiddle) {
    for (int i = 0; i < 5000 && !testing::Test::HasFailure(); ++i) {
        const auto side = [] { return any({0.0, 9.0, 16.0, 10.0, 100.0 + below(2000), 1000.0 + below(10)}); };
        const Size screen{side(), side()}, picture{side(), side()};
        PreviewGeometry is;
        is.setScreen(screen);
        is.setResolution(picture);
        const auto [small, big] = std::minmax({screen.width, screen.height});
        const auto [shorter, longer] = std::minmax({picture.width, picture.height});
        // In points: the picture is scaled until it fills the screen, and what goes over the edge is cut away.
        const double ratio = longer / shorter;
        const auto rounded = [](double value) { return std::round(value * 100) / 100; };
        const bool shown = big > 0 && small > 0 && !(picture == Size());
        const double screenRatio = rounded(big / small), pictureRatio = rounded(ratio);
        const double width = shown && screenRatio > pictureRatio ? big / ratio : small;
        const double height = shown && screenRatio < pictureRatio ? small * ratio : big;
        SCOPED_TRACE(testing::Message() << big << "x" << small << " shows " << longer << "x" << shorter);
        expectSame({is.biggerScreenSide, is.smallerScreenSide, is.biggerPreviewSide, is.smallerPreviewSide,
                    is.xAdjuster, is.yAdjuster},
                   {big, small, longer, shorter, (width - small) / 2, (height - big) / 2});
        if (!shown) continue;
        expectSame({is.wAdjuster, is.hAdjuster}, {small / width, big / height});
        const Rect box{0.125, 0.25, 0.5, 0.375}, rect = is.faceRect(box);
        expectSame({rect.x, rect.y, rect.width, rect.height},
                   {0.25 * width - is.xAdjuster, 0.125 * height - is.yAdjuster, 0.375 * width, 0.5 * height});
    }
    const auto mapped = landmarkInAdjustedRect(FaceLandmarkRegion{{{0.5, 0.25}}}, {10, 20, 100, 200});
    EXPECT_EQ(mapped, std::vector({Point{35, 120}}));
}

TEST(Rules, OrientationsAndEventsFollowTheirTables) {
    const std::uint32_t device[] = {5, 5, 5, 7, 4, 2, 5, 5, 5};  // from -1
    for (int i = 0; i < 9; ++i) EXPECT_EQ(exifOrientationFor(static_cast<DeviceOrientation>(i - 1)), device[i]) << i;
    const std::uint32_t image[] = {1, 1, 3, 8, 6, 2, 4, 5, 7, 1};  // from -1
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(selvio::exifOrientationFor(static_cast<ImageOrientation>(i - 1)), image[i]) << i;
    const int events[] = {0, 9, 11, 12, 13, 14, 15, 16, 10, 17, 19, 0, 0, 18, 20, 0};
    for (int i = 0; i < 16; ++i) EXPECT_EQ(eventFor(static_cast<SelvioFacialCaptureStatus>(i)), events[i]) << i;
}

}  // namespace
}  // namespace selvio::rules
