// The rules, compared with an independent writing of them on random faces.
#include <gtest/gtest.h>

#include <SelvioFacialCapture/imaging/Image.h>
#include <SelvioFacialCapture/rules/FaceChecks.h>

#include <limits>
#include <map>

#include "analyzer/FaceReference.h"
#include "analyzer/rules/DeviceOrientation.h"

namespace selvio::rules {
namespace {

class Rules : public ::testing::Test {
protected:
    int below(int n) { return std::uniform_int_distribution(0, n - 1)(random_); }
    bool oneIn(int n) { return below(n) == 0; }
    template <typename T>
    T any(std::initializer_list<T> values) {
        return values.begin()[below(static_cast<int>(values.size()))];
    }
    std::mt19937 random_{1};
};

/// Each number equal, or both not a number.
void expectSame(const std::vector<double>& actual, const std::vector<double>& expected) {
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (std::isnan(actual[i]) && std::isnan(expected[i])) continue;
        EXPECT_DOUBLE_EQ(actual[i], expected[i]) << "number " << i;
    }
}

TEST_F(Rules, EveryFaceIsMeasuredAndJudgedAsTheReferenceDoes) {
    std::map<std::int64_t, int> seen;
    for (int i = 0; i < 50000 && !HasFailure(); ++i) {
        // Coordinates on a coarse grid, so that many a value stands at its limit exactly; now and then an odd one.
        const bool odd = oneIn(10);
        const auto grid = [&](int from, int to) {
            if (odd && oneIn(6)) return any({0.0, -50.0, 1e300, 1e-300, std::numeric_limits<double>::infinity()});
            return from + 10.0 * below((to - from) / 10 + 1);
        };
        const double small = odd && oneIn(5) ? 0 : 1000;
        const double big = any<double>({1200, 1700, 1780, 1790, 2170});
        const Point a{grid(80, 300), grid(600, 1000)}, b{grid(700, 920), any({a.y, a.y * 1.25, grid(600, 1000)})};
        const Point nose{grid(450, 550), a.y + grid(100, 400)}, chin{500, a.y + any({500.0, grid(200, 700)})};
        const double left = grid(10, 100), right = any({left, left * 1.8, grid(10, 100)});
        const auto list = [&](std::size_t size, std::vector<std::pair<std::size_t, Point>> points) {
            std::vector<Point> all(odd && oneIn(4) ? static_cast<std::size_t>(below(20)) : size, Point{333, 444});
            for (const auto& [index, point] : points)
                if (index < all.size()) all[index] = point;
            return odd && oneIn(6) ? reference::Points() : reference::Points(all);
        };
        const auto contour = oneIn(2) ? list(17, {{16, a}, {0, b}, {8, chin}}) : list(11, {{0, a}, {10, b}, {5, chin}});
        const auto noses = list(9, {{4, nose}, {2, {nose.x - left, 0}}, {6, {nose.x + right, 0}}});
        const auto lips = oneIn(2) ? list(14, {{13, {1, 2}}, {7, {3, 4}}}) : list(10, {{9, {5, 6}}, {5, {7, 8}}});
        const auto strictness = [&] { return oneIn(2) ? 500 : 100 * below(11); };
        const reference::Strictness limits{strictness(), strictness(), strictness(), 400 + 10 * below(41),
                                           500 + 10 * below(41)};
        const bool moving = oneIn(5);

        const auto expected = reference::judge(contour, noses, lips, limits, big, small, moving);
        const auto actual =
            checkFace({.points = {contour, noses, lips},
                       .limits = {limits.roll, limits.pitch, limits.yaw, limits.minFill, limits.maxFill},
                       .biggerScreenSide = big,
                       .smallerScreenSide = small,
                       .shouldHoldStill = moving});
        SCOPED_TRACE(::testing::Message() << "face " << i << (odd ? ", odd" : ""));
        EXPECT_EQ(std::vector<std::int64_t>(actual.statuses.begin(), actual.statuses.end()), expected.statuses);
        EXPECT_EQ(actual.noseMiddle, expected.noseMiddle);
        EXPECT_EQ(actual.lipLeft, expected.lipLeft);
        EXPECT_EQ(actual.lipRight, expected.lipRight);
        const FaceMeasures& m = actual.measures;
        expectSame(
            {m.rollRatio, m.rollLimit, m.yawRatio, m.yawLimit, m.pitchRatio, m.pitchLow, m.pitchHigh, m.horizontalFill,
             m.minFill, m.maxFill, m.verticalRatio, m.verticalLimit, m.horizontalMargin, m.marginLimit},
            {expected.roll, expected.rollLimit, expected.yaw, expected.yawLimit, expected.pitch, expected.pitchLow,
             expected.pitchHigh, expected.fill, static_cast<double>(limits.minFill) / 1000,
             static_cast<double>(limits.maxFill) / 1000, expected.vertical, 1.5, expected.margin,
             expected.marginLimit});
        for (const std::int64_t status : expected.statuses) ++seen[status];
        if (expected.statuses.empty()) ++seen[0];
    }
    for (const std::int64_t status : {0, 3, 4, 5, 6, 7, 8, 9}) EXPECT_GT(seen[status], 500) << status;
}

TEST_F(Rules, DeviceAndImageOrientationsFollowTheirTables) {
    const std::uint32_t device[] = {5, 5, 5, 7, 4, 2, 5, 5, 5};  // from -1
    for (int i = 0; i < 9; ++i) EXPECT_EQ(exifOrientationFor(static_cast<DeviceOrientation>(i - 1)), device[i]) << i;
    const std::uint32_t image[] = {1, 1, 3, 8, 6, 2, 4, 5, 7, 1};  // from -1
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(selvio::exifOrientationFor(static_cast<ImageOrientation>(i - 1)), image[i]) << i;
}

}  // namespace
}  // namespace selvio::rules
