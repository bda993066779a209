#include "analyzer/AnalyzerFixture.h"
#include "analyzer/rules/DeviceOrientation.h"
#include "analyzer/rules/GoodFrameGate.h"
#include <SelvioFacialCapture/rules/PreviewGeometry.h>

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
        {"tall screen, landscape sizes; the zero size keeps all",
         {812, 375},
         {{1920, 1080}, {0, 0}},
         wide,
         1,
         wideX,
         0},
        {"squat screen", {768, 1024}, {{1080, 1920}}, 1, squat, 0, squatY},
        {"the other branch keeps it",
         {768, 1024},
         {{1080, 1920}, {1000, 1100}},
         1.1 * 768 / 1024,
         squat,
         (1024 / 1.1 - 768) * 0.5,
         squatY},
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

FaceChecksInput inputOf(const FacePoints& points, bool holdStill = false, double height = 1700) {
    return {.points = points,
            .limits = {},
            .biggerScreenSide = height,
            .smallerScreenSide = 1000,
            .shouldHoldStill = holdStill};
}

TEST(FaceChecks, EachRuleAloneAndTogether) {
    struct Row {
        const char* name;
        ScreenFace face;
        std::vector<int> statuses;
        bool holdStill = false;
        double height = 1700;
    };
    const std::vector<Row> rows = {
        {"roll at its limit", {.left = {190, 720}, .right = {810, 900}}, {}},
        {"roll beyond it", {.left = {190, 720}, .right = {810, 901}}, {3}},
        {"roll the other way",
         {.left = {190, 901}, .right = {810, 720}, .chin = {500, 1400}, .nose = {500, 1000}},
         {3}},
        {"yaw at its limit", {.noseLeft = 410, .noseRight = 550}, {}},
        {"yaw beyond it", {.noseLeft = 409, .noseRight = 550}, {5}},
        {"yaw the other way", {.noseLeft = 450, .noseRight = 591}, {5}},
        {"pitch down to its limit", {.chin = {500, 1300}, .nose = {500, 800}}, {}},
        {"pitch below it", {.chin = {500, 1300}, .nose = {500, 799}}, {4}},
        {"pitch above it", {.nose = {500, 983}}, {4}},
        {"fill at its lower limit", {.left = {225, 700}, .right = {775, 700}}, {}},
        {"fill below it", {.left = {225.5, 700}, .right = {775, 700}}, {6}},
        {"fill at its upper limit", {.left = {137.5, 700}, .right = {862.5, 700}}, {}},
        {"fill above it", {.left = {137, 700}, .right = {863, 700}}, {7}},
        {"too high on the screen", {.left = {190, 679}, .right = {810, 679}}, {8}},
        {"at the vertical limit", {.left = {190, 680}, .right = {810, 680}}, {}},
        {"too far left", {.left = {109, 700}, .right = {729, 700}}, {8}},
        {"too far right", {.left = {271, 700}, .right = {891, 700}}, {8}},
        {"at the margin", {.left = {110, 700}, .right = {730, 700}}, {}},
        {"off centre both ways counts twice",
         {.left = {109, 600}, .right = {729, 600}, .chin = {400, 1100}, .nose = {500, 800}},
         {8, 8}},
        {"sorted; a rolled head hides its yaw",
         {.left = {300, 720}, .right = {700, 901}, .nose = {500, 995}, .noseLeft = 400},
         {3, 4, 6, 9},
         true},
        {"tall screens use 1.218 of their width and no margin",
         {.left = {120, 800}, .right = {800, 800}, .chin = {500, 1300}, .nose = {500, 1000}},
         {},
         false,
         1790},
        {"so that a narrower face is too small there",
         {.left = {190, 800}, .right = {810, 800}, .chin = {500, 1300}, .nose = {500, 1000}},
         {6},
         false,
         1790},
    };
    for (const Row& row : rows) {
        for (const bool older : {false, true}) {
            const FaceChecksResult result = checkFace(inputOf(row.face.points(older), row.holdStill, row.height));
            EXPECT_THAT(result.statuses, ElementsAreArray(row.statuses))
                << row.name << (older ? ", 11 points" : ", 17 points");
            EXPECT_EQ(result.lipLeft, (Point{450, 1000}));
            EXPECT_EQ(result.lipRight, (Point{550, 1000}));
            EXPECT_EQ(result.noseMiddle, row.face.nose);
        }
    }
}

TEST(FaceChecks, StrictnessMovesTheLimits) {
    FaceChecksInput input = inputOf(ScreenFace{}.points());
    input.limits = {.roll = 600, .pitch = 600, .yaw = 600};
    const FaceMeasures strict = checkFace(input).measures;
    EXPECT_NEAR(strict.rollLimit, 1.2, 1e-12);
    EXPECT_NEAR(strict.yawLimit, 1.7, 1e-12);
    EXPECT_NEAR(strict.pitchLow, 1.24, 1e-12);
    EXPECT_NEAR(strict.pitchHigh, 2.24, 1e-12);
}

TEST(FaceChecks, MissingPointsReadAsZeroAndOddNumbersBreakNothing) {
    FaceChecksInput input = inputOf(ScreenFace{}.points());
    input.points = {};
    EXPECT_THAT(checkFace(input).statuses,
                ElementsAre(6, 8, 8));  // 0/0 for roll and pitch: no status; no fill; no room above
    const std::vector<Point> shortList(3, Point{300, 300});
    input.points = {.contour = shortList, .nose = shortList, .outerLips = shortList};
    EXPECT_THAT(checkFace(input).statuses, ElementsAre(3, 4, 6, 8));

    ScreenFace flat;  // the nose sides and the middle coincide on one side: an infinite ratio
    flat.noseRight = 500;
    EXPECT_THAT(checkFace(inputOf(flat.points())).statuses, ElementsAre(SelvioFacialCaptureStatusFaceYaw));
    flat.noseLeft = 500;  // on both sides: not a number
    EXPECT_THAT(checkFace(inputOf(flat.points())).statuses, ElementsAre());
}

TEST(GoodFrameGate, AnyFlagKeepsAFrameOut) {
    for (const GateFlags flags :
         {GateFlags{.selectionInProgress = true}, {.shouldSkipFrames = true}, {.smileDetectionInProgress = true}}) {
        EXPECT_EQ(decideGoodFrame({.flags = flags, .selectOnSmile = true}), GoodFrameDecision::Drop);
    }
}

TEST(Orientations, DeviceAndImageTables) {
    const std::vector<std::uint32_t> device = {5, 5, 7, 4, 2, 5, 5, 5};
    for (std::size_t i = 0; i < device.size(); ++i)
        EXPECT_EQ(exifOrientationFor(static_cast<DeviceOrientation>(i)), device[i]) << i;
    EXPECT_EQ(exifOrientationFor(static_cast<DeviceOrientation>(-1)), 5U);
    const std::vector<std::uint32_t> image = {1, 3, 8, 6, 2, 4, 5, 7, 1};
    for (std::size_t i = 0; i < image.size(); ++i)
        EXPECT_EQ(selvio::exifOrientationFor(static_cast<ImageOrientation>(i)), image[i]) << i;
    EXPECT_EQ(selvio::exifOrientationFor(static_cast<ImageOrientation>(-1)), 1U);
}

}  // namespace
}  // namespace selvio::rules
