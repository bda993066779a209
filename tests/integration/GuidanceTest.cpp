// The guidance on a real face: the component's statuses against the same formulas applied to where the face truly is.
#include <SelvioFacialCapture/SelvioFacialCapture.h>
#include <SelvioFacialCapture/linux/LinuxPlatform.h>
#include <SelvioFacialCapture/rules/FaceChecks.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "support/FakeDevice.h"
#include "support/ManualQueue.h"
#include "support/SampleScene.h"

namespace {

using namespace selvio;

constexpr int kWidth = 720, kHeight = 1280;
constexpr Size kScreen{1080, 1920};
using Statuses = std::vector<SelvioFacialCaptureStatus>;

/// What a detector without error would make of the face. The screen shows the frame as a mirror does.
rules::FaceChecksInput trueChecksInput(const FrameFace& face) {
    const auto onScreen = [](Point p) {
        return Point{(kWidth - p.x) * kScreen.width / kWidth, p.y * kScreen.height / kHeight};
    };
    const auto at = [&](const char* name) { return face.landmarks.at(name); };
    std::vector<Point> contour(17), nose(9);
    contour[16] = onScreen(face.jawRight);
    contour[0] = onScreen(face.jawLeft);
    contour[8] = onScreen(at("chin"));
    nose[2] = onScreen(at("noseRight"));
    nose[4] = onScreen({(at("noseTip").x + 2 * at("noseBase").x) / 3, at("noseBase").y});
    nose[6] = onScreen(at("noseLeft"));
    return {.points = {contour, nose, {}},
            .limits = {},
            .biggerScreenSide = kScreen.height,
            .smallerScreenSide = kScreen.width,
            .shouldHoldStill = false};
}

struct Guidance : ::testing::Test {
    void SetUp() override {
        ASSERT_FALSE(waitForVisionModels().has_value());
        Platform platform = makeLinuxPlatform();
        platform.mainQueue = queue;
        platform.makeSerialQueue = [this](const std::string&) { return queue; };
        platform.device = std::make_shared<FakeDevice>();
        platform.screen = std::make_shared<FakeScreen>(kScreen);
        analyzer = SelvioFacialCaptureAnalyzer::initWithParameters(std::make_shared<SelvioFacialCaptureParameters>(),
                                                                   platform);
        delegate->detectionResults = [this](const auto& results) { reported = results->orderedStatuses(); };
        delegate->startCountdown = [this] { reported = Statuses(); };
        analyzer->setDelegate(delegate);
    }

    /// The statuses of one frame; a countdown in progress counts as none.
    Statuses judge(const std::shared_ptr<PixelBuffer>& pixels) {
        reported.reset();
        analyzer->analyzeSampleBuffer(SampleBuffer::makeVideo(pixels));
        queue->runAll();
        EXPECT_TRUE(reported.has_value());
        Statuses statuses = reported.value_or(Statuses());
        std::erase(statuses, SelvioFacialCaptureStatusCountdown);
        return statuses;
    }

    const std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate> delegate =
        std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
    const std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>("main and analysis");
    std::shared_ptr<SelvioFacialCaptureAnalyzer> analyzer;
    std::optional<Statuses> reported;
};

TEST_F(Guidance, EachStatusFlipsWhereTheTrueFaceSaysSo) {
    std::vector<std::string> poses;
    for (int width = 40; width < 86; width += 3) poses.push_back(oneFace(0.5, 0.46, width / 100.0));
    for (int at = 30; at < 71; at += 4) {
        poses.push_back(oneFace(at / 100.0, 0.46, 0.60));
        poses.push_back(oneFace(0.5, at / 100.0, 0.60));
    }
    for (int roll = -28; roll < 29; roll += 4) {
        poses.push_back(oneFace(0.5, 0.46, 0.60, roll));
        poses.push_back(oneFace(0.44, 0.54, 0.70, roll));
    }
    // Where the true value lies within a share of the limit, either answer is right. What is measured from one end of
    // the jaw line is less sure: where it ends is a matter of a hundredth of the screen's width, and when the head is
    // tilted that moves the height from which the pitch is measured.
    const auto near = [](double value, double limit, double share = 0.05) {
        return std::abs(value - limit) <= share * std::abs(limit);
    };
    int sure = 0;
    for (const std::string& pose : poses) {
        const auto scene = sampleScene(pose);
        const Statuses said = judge(scene->frame({}, kWidth, kHeight, kPixelFormat420v));
        const auto expected = rules::checkFace(trueChecksInput(scene->trueGeometry({}, kWidth, kHeight).front()));
        const rules::FaceMeasures& m = expected.measures;
        const bool rollUnsure = near(m.rollRatio, m.rollLimit);
        const std::pair<SelvioFacialCaptureStatus, bool> unsure[] = {
            {SelvioFacialCaptureStatusFaceRoll, rollUnsure},
            {SelvioFacialCaptureStatusFaceYaw, rollUnsure || near(m.yawRatio, m.yawLimit)},
            {SelvioFacialCaptureStatusFacePitch,
             near(m.pitchRatio, m.pitchLow, 0.07) || near(m.pitchRatio, m.pitchHigh, 0.07)},
            {SelvioFacialCaptureStatusMoveCloser, near(m.horizontalFill, m.minFill)},
            {SelvioFacialCaptureStatusTooClose, near(m.horizontalFill, m.maxFill)},
            {SelvioFacialCaptureStatusNotCentered,
             near(m.verticalRatio, m.verticalLimit) || std::abs(m.horizontalMargin - m.marginLimit) < 0.012},
        };
        for (const auto& [status, isUnsure] : unsure) {
            if (isUnsure) continue;
            ++sure;
            EXPECT_EQ(std::ranges::count(said, status), std::ranges::count(expected.statuses, status))
                << "status " << status << " at " << pose;
        }
    }
    EXPECT_GT(sure, 300);
}

TEST_F(Guidance, ASteadyFaceUnderSensorNoiseDoesNotFlicker) {
    const auto scene = sampleScene(oneFace(0.5, 0.46, 0.63, 0, R"(, "noise": 3)"));
    int flickers = 0;
    for (int i = 0; i < 300; ++i) {
        const auto time = std::chrono::milliseconds(33 * i);
        flickers += judge(scene->frame(time, kWidth, kHeight, kPixelFormat420v)).empty() ? 0 : 1;
    }
    EXPECT_LE(flickers, 3);
}

}  // namespace
