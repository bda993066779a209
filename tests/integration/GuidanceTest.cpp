// The guidance on a real face: the component's statuses against the same formulas applied to where the face truly is.
#include <SelvioFacialCapture/SelvioFacialCapture.h>
#include <SelvioFacialCapture/linux/LinuxPlatform.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "support/FakeDevice.h"
#include "support/ManualQueue.h"
#include "support/SampleScene.h"
#include "support/TrueFace.h"

namespace selvio {
namespace {

constexpr int kWidth = 720;
constexpr int kHeight = 1280;
constexpr Size kScreen{1080, 1920};
using test::oneFace;
using test::sampleScene;
using Statuses = std::vector<SelvioFacialCaptureStatus>;

class Guidance : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_FALSE(waitForVisionModels().has_value()); }

    void SetUp() override {
        Platform platform = makeLinuxPlatform();
        platform.mainQueue = mainQueue;
        platform.makeSerialQueue = [this](const std::string& label) {
            return analysisQueue = std::make_shared<ManualQueue>(label);
        };
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
        analysisQueue->runAll();
        mainQueue->runAll();
        EXPECT_TRUE(reported.has_value());
        Statuses statuses = reported.value_or(Statuses());
        std::erase(statuses, SelvioFacialCaptureStatusCountdown);
        return statuses;
    }

    const std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate> delegate =
        std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
    const std::shared_ptr<ManualQueue> mainQueue = std::make_shared<ManualQueue>("main");
    std::shared_ptr<ManualQueue> analysisQueue;
    std::shared_ptr<SelvioFacialCaptureAnalyzer> analyzer;
    std::optional<Statuses> reported;
};

// A limit is near when the true value lies within 5 % of it: there either answer is right.
bool near(double value, double limit, double share = 0.05) {
    return std::abs(value - limit) <= share * std::abs(limit);
}

// What is measured from one end of the jaw line is less sure: where it ends is a matter of a hundredth of the screen's
// width, and when the head is tilted that moves the height from which the pitch is measured.
constexpr double kNearPitch = 0.07;
constexpr double kNearMargin = 0.012;

TEST_F(Guidance, EachStatusFlipsWhereTheTrueFaceSaysSo) {
    struct Pose {
        double x, y, width, roll;
    };
    std::vector<Pose> poses;
    for (double width = 0.40; width < 0.86; width += 0.03) poses.push_back({0.5, 0.46, width, 0});
    for (double x = 0.30; x < 0.71; x += 0.04) poses.push_back({x, 0.46, 0.60, 0});
    for (double y = 0.30; y < 0.71; y += 0.04) poses.push_back({0.5, y, 0.60, 0});
    for (double roll = -28; roll < 29; roll += 4) poses.push_back({0.5, 0.46, 0.60, roll});
    for (const double x : {0.44, 0.56}) {
        for (const double y : {0.42, 0.54}) {
            for (const double width : {0.5, 0.7}) {
                for (const double roll : {-8.0, 14.0}) poses.push_back({x, y, width, roll});
            }
        }
    }
    int sure = 0;
    for (const Pose& pose : poses) {
        const std::string keyFrame = oneFace(pose.x, pose.y, pose.width, pose.roll);
        const auto scene = sampleScene(keyFrame);
        const Statuses said = judge(scene->frame({}, kWidth, kHeight, kPixelFormat420v));
        const auto expected = rules::checkFace(
            trueChecksInput(scene->trueGeometry({}, kWidth, kHeight).front(), {kWidth, kHeight}, kScreen));
        const rules::FaceMeasures& m = expected.measures;
        struct Check {
            SelvioFacialCaptureStatus status;
            bool unsure;
        };
        const bool rollUnsure = near(m.rollRatio, m.rollLimit);
        const Check checks[] = {
            {SelvioFacialCaptureStatusFaceRoll, rollUnsure},
            {SelvioFacialCaptureStatusFaceYaw, rollUnsure || near(m.yawRatio, m.yawLimit)},
            {SelvioFacialCaptureStatusFacePitch,
             near(m.pitchRatio, m.pitchLow, kNearPitch) || near(m.pitchRatio, m.pitchHigh, kNearPitch)},
            {SelvioFacialCaptureStatusMoveCloser, near(m.horizontalFill, m.minFill)},
            {SelvioFacialCaptureStatusTooClose, near(m.horizontalFill, m.maxFill)},
            {SelvioFacialCaptureStatusNotCentered,
             near(m.verticalRatio, m.verticalLimit) || std::abs(m.horizontalMargin - m.marginLimit) < kNearMargin},
        };
        for (const Check& check : checks) {
            if (check.unsure) continue;
            ++sure;
            const auto has = [&](const Statuses& statuses) {
                return std::find(statuses.begin(), statuses.end(), check.status) != statuses.end();
            };
            EXPECT_EQ(has(said), has(expected.statuses))
                << "status " << check.status << " at " << keyFrame << ": true roll " << m.rollRatio << " yaw "
                << m.yawRatio << " pitch " << m.pitchRatio << " fill " << m.horizontalFill << " vertical "
                << m.verticalRatio << " margin " << m.horizontalMargin;
        }
    }
    EXPECT_GT(sure, 300);
}

TEST_F(Guidance, ASteadyFaceUnderSensorNoiseDoesNotFlicker) {
    const auto scene = sampleScene(oneFace(0.5, 0.46, 0.63, 0, R"(, "noise": 3)"));
    int flickers = 0;
    for (int i = 0; i < 300; ++i) {
        flickers +=
            judge(scene->frame(std::chrono::milliseconds(33 * i), kWidth, kHeight, kPixelFormat420v)).empty() ? 0 : 1;
    }
    EXPECT_LE(flickers, 3);
}

TEST_F(Guidance, AnEmptySceneAndTwoPeopleAreTold) {
    EXPECT_EQ(
        judge(
            sampleScene(R"({"at": 0, "visible": false, "noise": 2})")->frame({}, kWidth, kHeight, kPixelFormat32BGRA)),
        Statuses{SelvioFacialCaptureStatusFaceNotFound});
    const auto two = sampleScene(
        R"({"at": 0, "visible": true, "center": [0.27, 0.45], "jawWidth": 0.36, "second": {"center": [0.75, 0.45], "jawWidth": 0.36, "roll": 0}})");
    EXPECT_EQ(judge(two->frame({}, kWidth, kHeight, kPixelFormat32BGRA)),
              Statuses{SelvioFacialCaptureStatusMoreThanOneFace});
}

}  // namespace
}  // namespace selvio
