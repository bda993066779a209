// A Video4Linux camera, emulated below the ioctls, through the same adapters as a real one.
#include <gstreamer/CaptureRig.h>

namespace selvio {
namespace {

using namespace test;

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
    EXPECT_EQ(camera_->activeFormat(), (CaptureDeviceFormat{{kPixelFormat420v, 1280, 720}, 30}));
    EXPECT_THAT(camera_->formats(), Contains(CaptureDeviceFormat{{kPixelFormat32BGRA, 320, 240}, 30}));
}

TEST_F(V4l2Capture, DeliversWhatItSendsRawAndCompressedAndFramesMayBeHeld) {
    outputOf(
        "gst-launch-1.0 -q videotestsrc num-buffers=1 pattern=white ! video/x-raw,width=1280,height=720 ! jpegenc ! "
        "filesink location='" +
        (files_ / "frame.jpg").string() + "'");
    // As Motion JPEG, because raw frames of this size come ten times a second only.
    expectDelivery(system_, camera_, {1280, 720, kPixelFormat420v, VideoOrientation::Portrait, 404, 720});
    // Raw, in the camera's own memory.
    expectDelivery(system_, camera_, {320, 240, kPixelFormat32BGRA, VideoOrientation::LandscapeRight, 320, 240, 16});
    camera_->setActiveFormat({{kPixelFormat420v, 320, 240}, 30});
    expectFramesMayBeHeld(system_, camera_);
}

TEST_F(V4l2Capture, SetsTheFocus) {
    EXPECT_TRUE(camera_->isFocusModeSupported(FocusMode::AutoFocus));
    EXPECT_TRUE(camera_->isFocusModeSupported(FocusMode::ContinuousAutoFocus));
    Rig rig(system_, camera_, kPixelFormat420v);
    camera_->setActiveFormat({{kPixelFormat420v, 320, 240}, 30});
    rig.session->startRunning();
    ASSERT_TRUE(rig.session->isRunning());
    for (const auto mode : {FocusMode::ContinuousAutoFocus, FocusMode::Locked, FocusMode::AutoFocus})
        camera_->setFocusMode(mode);
    EXPECT_EQ(contentOf(files_ / "controls"), "FOCUS_AUTO=1\nFOCUS_AUTO=0\nAUTO_FOCUS_START=1\n");
}

}  // namespace
}  // namespace selvio
