#include <gmock/gmock.h>

#include <SelvioFacialCapture/imaging/Image.h>

#include "analyzer/rules/DeviceOrientation.h"
#include "analyzer/rules/FaceChecks.h"
#include "analyzer/rules/GoodFrameGate.h"
#include "analyzer/rules/PreviewGeometry.h"

namespace selvio::rules {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using Status = SelvioFacialCaptureStatus;

TEST(PreviewGeometry, TheAdjustersFollowTheRatiosAndKeepWhatTheyNeedNotChange) {
    struct Row {
        const char* name;
        Size screen;
        std::vector<Size> resolutions;
        double w, h, x, y;
    };
    const double wide = 16.0 / 9 * 375 / 812;
    const double wideX = (812 / (16.0 / 9) - 375) * 0.5;
    const double squat = 1024 / (16.0 / 9 * 768);
    const double squatY = (16.0 / 9 * 768 - 1024) * 0.5;
    const std::vector<Row> rows = {
        {"third decimal only", {1000, 1775.1}, {{1000, 1777.8}}, 1, 1, 0, 0},
        {"tall screen, landscape sizes; the zero size keeps all", {812, 375}, {{1920, 1080}, {0, 0}}, wide, 1, wideX, 0},
        {"squat screen", {768, 1024}, {{1080, 1920}}, 1, squat, 0, squatY},
        {"the other branch keeps it", {768, 1024}, {{1080, 1920}, {1000, 1100}}, 1.1 * 768 / 1024, squat, (1024 / 1.1 - 768) * 0.5, squatY},
        {"no screen", {0, 0}, {{1080, 1920}}, 1, 1, 0, 0},
    };
    for (const Row& row : rows) {
        PreviewGeometry geometry;
        geometry.setScreen(row.screen);
        for (const Size& size : row.resolutions) geometry.setResolution(size);
        EXPECT_NEAR(geometry.wAdjuster, row.w, 1e-9) << row.name;
        EXPECT_NEAR(geometry.hAdjuster, row.h, 1e-9) << row.name;
        EXPECT_NEAR(geometry.xAdjuster, row.x, 1e-9) << row.name;
        EXPECT_NEAR(geometry.yAdjuster, row.y, 1e-9) << row.name;
    }
}

TEST(PreviewGeometry, MapsTheDetectorsAxesOntoTheScreen) {
    PreviewGeometry geometry;
    geometry.setScreen({375, 812});
    geometry.setResolution({1080, 1920});
    const Rect rect = geometry.faceRect({.x = 0.25, .y = 0.5, .width = 0.5, .height = 0.25});
    // The image is 456.75 points wide on this screen, 40.875 of them cropped at each side.
    EXPECT_NEAR(rect.x, 0.5 * 456.75 - 40.875, 1e-9);
    EXPECT_NEAR(rect.y, 0.25 * 812, 1e-9);
    EXPECT_NEAR(rect.width, 0.25 * 456.75, 1e-9);
    EXPECT_NEAR(rect.height, 0.5 * 812, 1e-9);

    const Rect r{.x = 10, .y = 20, .width = 100, .height = 200};
    EXPECT_EQ(pointInAdjustedRect({1, 0}, r), (Point{10, 220}));
    EXPECT_EQ(pointInAdjustedRect({0, 1}, r), (Point{110, 20}));
    EXPECT_EQ(landmarkInAdjustedRect(std::nullopt, r), std::nullopt);
}

// A face on a screen of 1000 x 1700, in the layout of 17 and 14 points or that of 11 and 10.
struct Face {
    Point a{190, 700};
    Point b{810, 700};
    Point chin{500, 1200};
    Point nose{500, 900};
    double n2 = 460;
    double n6 = 540;
    bool holdStill = false;
    double height = 1700;

    [[nodiscard]] FaceChecksInput input(bool older = false) const {
        std::vector<Point> contour(older ? 11 : 17);
        contour[older ? 0 : 16] = a;
        contour[older ? 10 : 0] = b;
        contour[older ? 5 : 8] = chin;
        std::vector<Point> noses(9);
        noses[2].x = n2;
        noses[4] = nose;
        noses[6].x = n6;
        std::vector<Point> lips(older ? 10 : 14);
        lips[older ? 9 : 13] = {450, 1000};
        lips[older ? 5 : 7] = {550, 1000};
        return {.points = {contour, noses, lips}, .limits = {}, .biggerScreenSide = height, .smallerScreenSide = 1000, .shouldHoldStill = holdStill};
    }
};

TEST(FaceChecks, EachRuleAloneAndTogether) {
    struct Row {
        const char* name;
        Face face;
        std::vector<int> statuses;
    };
    const std::vector<Row> rows = {
        {"roll at its limit", {.a = {190, 720}, .b = {810, 900}}, {}},
        {"roll beyond it", {.a = {190, 720}, .b = {810, 901}}, {3}},
        {"roll the other way", {.a = {190, 901}, .b = {810, 720}, .chin = {500, 1400}, .nose = {500, 1000}}, {3}},
        {"yaw at its limit", {.n2 = 410, .n6 = 550}, {}},
        {"yaw beyond it", {.n2 = 409, .n6 = 550}, {5}},
        {"yaw the other way", {.n2 = 450, .n6 = 591}, {5}},
        {"pitch down to its limit", {.chin = {500, 1300}, .nose = {500, 800}}, {}},
        {"pitch below it", {.chin = {500, 1300}, .nose = {500, 799}}, {4}},
        {"pitch above it", {.nose = {500, 983}}, {4}},
        {"fill at its lower limit", {.a = {225, 700}, .b = {775, 700}}, {}},
        {"fill below it", {.a = {225.5, 700}, .b = {775, 700}}, {6}},
        {"fill at its upper limit", {.a = {137.5, 700}, .b = {862.5, 700}}, {}},
        {"fill above it", {.a = {137, 700}, .b = {863, 700}}, {7}},
        {"too high on the screen", {.a = {190, 679}, .b = {810, 679}}, {8}},
        {"at the vertical limit", {.a = {190, 680}, .b = {810, 680}}, {}},
        {"too far left", {.a = {109, 700}, .b = {729, 700}}, {8}},
        {"too far right", {.a = {271, 700}, .b = {891, 700}}, {8}},
        {"at the margin", {.a = {110, 700}, .b = {730, 700}}, {}},
        {"off centre both ways counts twice", {.a = {109, 600}, .b = {729, 600}, .chin = {400, 1100}, .nose = {500, 800}}, {8, 8}},
        {"sorted; a rolled head hides its yaw", {.a = {300, 720}, .b = {700, 901}, .nose = {500, 995}, .n2 = 400, .holdStill = true}, {3, 4, 6, 9}},
        {"tall screens use 1.218 of their width and no margin",
         {.a = {120, 800}, .b = {800, 800}, .chin = {500, 1300}, .nose = {500, 1000}, .height = 1790},
         {}},
        {"so that a narrower face is too small there",
         {.a = {190, 800}, .b = {810, 800}, .chin = {500, 1300}, .nose = {500, 1000}, .height = 1790},
         {6}},
    };
    for (const Row& row : rows) {
        for (const bool older : {false, true}) {
            const FaceChecksResult result = checkFace(row.face.input(older));
            EXPECT_THAT(result.statuses, ElementsAreArray(row.statuses)) << row.name << (older ? ", 11 points" : ", 17 points");
            EXPECT_EQ(result.lipLeft, (Point{450, 1000}));
            EXPECT_EQ(result.lipRight, (Point{550, 1000}));
            EXPECT_EQ(result.noseMiddle, row.face.nose);
        }
    }
}

TEST(FaceChecks, StrictnessMovesTheLimits) {
    FaceChecksInput input = Face{}.input();
    input.limits = {.roll = 600, .pitch = 600, .yaw = 600};
    const FaceMeasures strict = checkFace(input).measures;
    EXPECT_NEAR(strict.rollLimit, 1.2, 1e-12);
    EXPECT_NEAR(strict.yawLimit, 1.7, 1e-12);
    EXPECT_NEAR(strict.pitchLow, 1.24, 1e-12);
    EXPECT_NEAR(strict.pitchHigh, 2.24, 1e-12);
}

TEST(FaceChecks, MissingPointsReadAsZeroAndOddNumbersBreakNothing) {
    FaceChecksInput input = Face{}.input();
    input.points = {};
    EXPECT_THAT(checkFace(input).statuses, ElementsAre(6, 8, 8));  // 0/0 for roll and pitch: no status; no fill; no room above
    const std::vector<Point> shortList(3, Point{300, 300});
    input.points = {.contour = shortList, .nose = shortList, .outerLips = shortList};
    EXPECT_THAT(checkFace(input).statuses, ElementsAre(3, 4, 6, 8));

    Face flat;  // the nose sides and the middle coincide on one side: an infinite ratio
    flat.n6 = 500;
    EXPECT_THAT(checkFace(flat.input()).statuses, ElementsAre(SelvioFacialCaptureStatusFaceYaw));
    flat.n2 = 500;  // on both sides: not a number
    EXPECT_THAT(checkFace(flat.input()).statuses, ElementsAre());
}

TEST(GoodFrameGate, AnyFlagKeepsAFrameOut) {
    for (const GateFlags flags : {GateFlags{.selectionInProgress = true}, {.shouldSkipFrames = true}, {.smileDetectionInProgress = true}}) {
        EXPECT_EQ(decideGoodFrame({.flags = flags, .selectOnSmile = true}), GoodFrameDecision::Drop);
    }
}

TEST(Orientations, DeviceAndImageTables) {
    const std::vector<std::uint32_t> device = {5, 5, 7, 4, 2, 5, 5, 5};
    for (std::size_t i = 0; i < device.size(); ++i) EXPECT_EQ(exifOrientationFor(static_cast<DeviceOrientation>(i)), device[i]) << i;
    EXPECT_EQ(exifOrientationFor(static_cast<DeviceOrientation>(-1)), 5U);
    const std::vector<std::uint32_t> image = {1, 3, 8, 6, 2, 4, 5, 7, 1};
    for (std::size_t i = 0; i < image.size(); ++i) EXPECT_EQ(selvio::exifOrientationFor(static_cast<ImageOrientation>(i)), image[i]) << i;
    EXPECT_EQ(selvio::exifOrientationFor(static_cast<ImageOrientation>(-1)), 1U);
}

}  // namespace
}  // namespace selvio::rules
