// A Video4Linux camera, emulated below the ioctls, through the same adapters as a real one.
#include "CaptureRig.h"

namespace {

using namespace selvio;

TEST(V4l2Capture, IsFoundOpenedInItsOwnFormatAndSetsTheFocus) {
    const char* const files = std::getenv("SELVIO_EMULATED_CAMERA");
    if (!files) GTEST_SKIP() << "UNAVAILABLE: umockdev-run is not installed";
    const auto system = makeGstCaptureSystem();
    const auto devices = system->discoverDevices({}, MediaType::Video, CaptureDevicePosition::Front)->devices;
    ASSERT_EQ(devices.size(), 1U);
    const auto& camera = devices.front();
    EXPECT_EQ(camera->localizedName(), "Emulated Camera");
    EXPECT_EQ(camera->activeFormat(), (CaptureDeviceFormat{{kPixelFormat420v, 320, 240}, 30}));
    EXPECT_THAT(camera->formats(), Contains(CaptureDeviceFormat{{kPixelFormat32BGRA, 320, 240}, 30}));
    LogCapture log;
    Rig({system, camera}, kPixelFormat420v).session->startRunning();
    EXPECT_THAT(log.take(), Contains("Capture: could not start: v4l2src0: Failed to allocate required memory."));

    EXPECT_TRUE(camera->isFocusModeSupported(FocusMode::AutoFocus));
    EXPECT_TRUE(camera->isFocusModeSupported(FocusMode::ContinuousAutoFocus));
    for (const auto mode : {FocusMode::ContinuousAutoFocus, FocusMode::Locked, FocusMode::AutoFocus})
        camera->setFocusMode(mode);
    EXPECT_EQ(contentOf(std::filesystem::path(files) / "controls"), "FOCUS_AUTO=1\nFOCUS_AUTO=0\nAUTO_FOCUS_START=1\n");
}

}  // namespace
