// A Video4Linux camera, emulated below the ioctls, through the same adapters as a real one.
#include <SelvioFacialCapture/linux/Capture.h>

#include <gstreamer/CaptureProbe.h>
#include <support/LogCapture.h>
#include <support/MediaProbe.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace selvio {
namespace {

using namespace test;
using std::chrono::milliseconds;
using ::testing::Contains;
using ::testing::HasSubstr;

class V4l2Capture : public ::testing::Test {
protected:
    void SetUp() override {
        const char* const directory = std::getenv("SELVIO_EMULATED_CAMERA");
        if (directory == nullptr) GTEST_SKIP() << "UNAVAILABLE: umockdev-run is not installed";
        files_ = directory;
        const auto devices = system_->discoverDevices({}, MediaType::Video, CaptureDevicePosition::Front)->devices;
        ASSERT_EQ(devices.size(), 1U);
        camera_ = devices.front();
    }

    std::filesystem::path files_;
    std::shared_ptr<CaptureSystem> system_ = makeGstCaptureSystem({.stallTimeout = milliseconds(1000)});
    std::shared_ptr<CaptureDevice> camera_;
};

TEST_F(V4l2Capture, IsFoundWithItsFormats) {
    EXPECT_EQ(camera_->localizedName(), "Emulated Camera");
    EXPECT_EQ(camera_->uniqueId(), "/dev/video0");
    EXPECT_EQ(camera_->position(), CaptureDevicePosition::Unspecified);
    EXPECT_EQ(system_->authorizationStatus(MediaType::Video), AuthorizationStatus::Authorized);
    EXPECT_EQ(camera_->activeFormat(), (CaptureDeviceFormat{{kPixelFormat420v, 1280, 720}, 30}));
    for (const auto& [width, height] : {std::pair{640, 480}, {320, 240}}) {
        EXPECT_THAT(camera_->formats(), Contains(CaptureDeviceFormat{{kPixelFormat32BGRA, width, height}, 30}));
    }
}

TEST_F(V4l2Capture, DeliversWhatItSendsRawAndCompressed) {
    outputOf("gst-launch-1.0 -q videotestsrc num-buffers=1 pattern=white ! video/x-raw,width=1280,height=720 ! jpegenc ! filesink location='" +
             (files_ / "frame.jpg").string() + "'");
    struct Case {
        int width, height;
        PixelFormat format;
        VideoOrientation orientation;
        VideoFormatDescription expected;
        int leastBright, mostBright;  // pixels of the middle row in all frames together
    };
    const Case cases[] = {
        // As Motion JPEG, because raw frames of this size come ten times a second only.
        {1280, 720, kPixelFormat420v, VideoOrientation::Portrait, {kPixelFormat420v, 404, 720}, 20 * 404, 100 * 404},
        {640, 480, kPixelFormat32BGRA, VideoOrientation::LandscapeRight, {kPixelFormat32BGRA, 640, 480}, 20 * 8, 100 * 24},
        {320, 240, kPixelFormat420v, VideoOrientation::LandscapeRight, {kPixelFormat420v, 320, 240}, 20 * 8, 100 * 24},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.width << "x" << c.height);
        camera_->setActiveFormat({{c.format, c.width, c.height}, 30});
        Rig rig(system_, camera_, c.format);
        rig.output->connections().at(0)->setVideoOrientation(c.orientation);
        int bright = 0;
        rig.probe->onSample = [&](const auto& sample) { bright += brightPixels(*sample); };
        rig.session->startRunning();
        ASSERT_TRUE(rig.session->isRunning());
        EXPECT_TRUE(rig.probe->waitForFrames(25));
        rig.session->stopRunning();
        rig.queue->drain();
        EXPECT_EQ(rig.probe->lastFormat(), c.expected);
        EXPECT_GE(bright, c.leastBright);
        EXPECT_LE(bright, c.mostBright);
        EXPECT_NEAR(middleDistance(rig.probe->frames_), 1.0 / 30, 0.006);
    }
}

TEST_F(V4l2Capture, FramesInTheCamerasOwnMemoryMayBeHeld) {
    camera_->setActiveFormat({{kPixelFormat420v, 320, 240}, 30});
    Rig rig(system_, camera_, kPixelFormat420v);
    std::vector<std::shared_ptr<SampleBuffer>> kept;
    std::vector<std::size_t> bars;
    const auto barOf = [](const SampleBuffer& sample) {
        const std::uint8_t* const row = sample.imageBuffer()->data();
        return static_cast<std::size_t>(std::max_element(row, row + 320) - row);
    };
    rig.probe->onSample = [&](const auto& sample) {
        kept.push_back(sample);
        bars.push_back(barOf(*sample));
    };
    rig.session->startRunning();
    EXPECT_TRUE(rig.probe->waitForFrames(30)) << "more than the camera has buffers";
    rig.session->stopRunning();
    rig.queue->drain();
    for (std::size_t i = 0; i < kept.size(); ++i) EXPECT_EQ(barOf(*kept[i]), bars[i]) << "frame " << i << " was written over";
}

TEST_F(V4l2Capture, SetsTheFocus) {
    EXPECT_TRUE(camera_->isFocusModeSupported(FocusMode::AutoFocus));
    EXPECT_TRUE(camera_->isFocusModeSupported(FocusMode::ContinuousAutoFocus));
    Rig rig(system_, camera_, kPixelFormat420v);
    camera_->setActiveFormat({{kPixelFormat420v, 320, 240}, 30});
    rig.session->startRunning();
    ASSERT_TRUE(rig.session->isRunning());
    for (const auto mode : {FocusMode::ContinuousAutoFocus, FocusMode::Locked, FocusMode::AutoFocus}) camera_->setFocusMode(mode);
    std::ifstream controls(files_ / "controls");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(controls), {}), "FOCUS_AUTO=1\nFOCUS_AUTO=0\nAUTO_FOCUS_START=1\n");
}

TEST_F(V4l2Capture, AnUnpluggedCameraEndsTheRunAndMayComeBack) {
    camera_->setActiveFormat({{kPixelFormat420v, 640, 480}, 30});
    LogCapture log;
    Rig rig(system_, camera_, kPixelFormat420v);
    rig.session->startRunning();
    ASSERT_TRUE(rig.probe->waitForFrames(3));
    std::ofstream(files_ / "unplugged").flush();
    EXPECT_THAT(linesAtTheEndOf(*rig.session, log), Contains(HasSubstr("Capture: stopped: ")));
    rig.session->startRunning();
    EXPECT_FALSE(rig.session->isRunning());
    EXPECT_THAT(log.take(), Contains(HasSubstr("Capture: could not start: ")));
    std::filesystem::remove(files_ / "unplugged");
    rig.session->startRunning();
    EXPECT_TRUE(rig.probe->waitForFrames(3));
}

}  // namespace
}  // namespace selvio
