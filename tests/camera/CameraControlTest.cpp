#include <sstream>
#include <thread>

#include "CameraRig.h"

namespace selvio {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto kTorchDelay = std::chrono::milliseconds(100);

TEST(CameraControl, initializers) {
    CameraRig rig;
    const Platform& on = rig.platform;
    const Rect own{1.0, 2.0, 3.0, 4.0};
    const Rect given{5.0, 6.0, 7.5, 8.0};
    const auto front = CaptureDevicePosition::Front;
    const auto left = VideoOrientation::LandscapeLeft;
    const struct {
        std::function<std::shared_ptr<Camera>()> make;
        Rect frame;
        std::string is;  // position, format, preset, resolution, orientation
    } rows[] = {
        // clang-format off
        {[&] { return Camera::init(on); }, own, "1 0 - 0x0 0"},
        {[&] { return Camera::initWithCoder("{", on); }, own, "1 0 - 0x0 0"},
        {[&] { return Camera::initWithCoder(R"({"Frame":[5,6,null,8]})", on); }, own, "1 0 - 0x0 0"},
        {[&] { return Camera::initWithPreset("High", 32, front, left, given, on); }, given, "2 32 High 0x0 4"},
        {[&] { return Camera::initWithPreset("High", 32, front, given, on); }, given, "2 32 High 0x0 1"},
        {[&] { return Camera::initWithDesiredResolution({640, 480}, 32, front, given, on); }, given, "2 32 - 640x480 0"},
        // clang-format on
    };
    for (const auto& row : rows) {
        rig.view->setFrame(own);
        const auto camera = row.make();
        std::ostringstream is;
        is << static_cast<int>(camera->devicePosition()) << ' ' << camera->pixelBufferFormat() << ' '
           << camera->sessionPreset().value_or("-") << ' ' << camera->desiredResolution().width << 'x'
           << camera->desiredResolution().height << ' ' << static_cast<int>(camera->cameraOrientation());
        EXPECT_EQ(is.str(), row.is);
        EXPECT_EQ(camera->view()->frame(), row.frame);
        EXPECT_TRUE(camera->analyzeRGBVideo() && camera->shouldRecord() && camera->parameters() && camera->session());
        rig.view->setFrame(given);
        EXPECT_EQ(Camera::initWithCoder(camera->encodeWithCoder(), on)->view()->frame(), given);
    }
}

// A delegate call that runs is waited for, but not by one.
TEST(CameraControl, shutdownWaitsForTheCallThatRuns) {
    for (const bool fromWithin : {false, true}) {
        CameraRig rig;
        rig.makeConfigured();
        const auto video = rig.video();
        std::atomic<bool> entered{false}, returned{false}, tooEarly{false};
        rig.delegate->didReceiveSampleBuffer = [&](const auto&) {
            if (fromWithin) return rig.camera->shutdown();
            entered = true;
            const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
            while (!returned && std::chrono::steady_clock::now() < end) std::this_thread::yield();
            rig.camera->stop();  // which wants the monitor
            tooEarly = returned.load();
        };
        video->deliver(frame());
        std::thread output([&] { rig.queues[rig.camera->videoOutputQueue()->label()]->runAll(); });
        while (!entered && !fromWithin) std::this_thread::yield();
        if (!fromWithin) rig.camera->shutdown();
        returned = true;
        output.join();
        EXPECT_FALSE(tooEarly);
        EXPECT_FALSE(rig.camera->session());
    }
}

TEST(CameraControl, permissions) {
    const struct {
        std::int64_t status;
        std::optional<bool> camera, microphone;
    } rows[] = {{0, true, false},
                {1, false, false},
                {2, false, false},
                {3, true, true},
                {4, {}, {}}};  // 0: the fake's person grants video only
    for (const auto& row : rows) {
        CameraRig rig;
        rig.capture->authorization = static_cast<AuthorizationStatus>(row.status);
        std::optional<bool> camera, microphone;
        Camera::checkCameraPermission([&](bool granted) { camera = granted; }, rig.platform);
        Camera::checkMicrophonePermission([&](bool granted) { microphone = granted; }, rig.platform);
        EXPECT_EQ(camera, row.camera);
        EXPECT_EQ(microphone, row.microphone);
    }
}

// Each port missing in turn: what does not need it still works, and nothing else does harm.
TEST(CameraControl, missingPorts) {
    const std::string all = "configured frame writing torch ";
    const std::string noFile = "configured frame torch ";
    const struct {
        std::function<void(Platform&)> remove;
        std::string works;
    } rows[] = {
        // clang-format off
        {[](Platform& on) { on.clock = nullptr; }, noFile},
        {[](Platform& on) { on.mainQueue = nullptr; }, "configured frame writing "},
        {[](Platform& on) { on.makeSerialQueue = {}; }, ""},
        {[](Platform& on) { on.device = nullptr; }, all},
        {[](Platform& on) { on.screen = nullptr; }, all},
        {[](Platform& on) { on.captureSystem = nullptr; }, ""},
        {[](Platform& on) { on.assetWriters = nullptr; }, noFile},
        {[](Platform& on) { on.fileManager = nullptr; }, noFile},
        {[](Platform& on) { on.makeView = {}; }, all},
        {[](Platform& on) { on.notificationCenter = nullptr; }, all},
        // clang-format on
    };
    for (const auto& row : rows) {
        CameraRig rig;
        rig.capture->torch = true;
        rig.writing->finishesAtOnce = true;
        row.remove(rig.platform);
        rig.make();
        rig.camera->parameters()->setRecordVideo(true);
        rig.configure();
        rig.camera->start();
        rig.run();
        if (rig.video()) rig.video()->deliver(frame());
        rig.run();
        std::string works;
        for (const std::string& event : rig.events) works += event + " ";
        if (rig.camera->assetWriter()) works += "writing ";
        if (rig.camera->turnTorchOn()) works += "torch ";
        EXPECT_EQ(works, row.works) << &row - rows;

        Camera::checkCameraPermission(nullptr, rig.platform);
        rig.camera->updatePreviewLayer(VideoOrientation::Portrait);
        rig.notifications->post(ApplicationNotification::WillResignActive);
        rig.notifications->post(ApplicationNotification::DidBecomeActive);
        rig.main->advance(kTorchDelay);
        rig.camera->stop();
        rig.camera->discardRecording();
        rig.camera->setParameters(nullptr);
        rig.camera->startRecording();
        rig.run();
        for (int i = 0; i < 2; ++i) rig.camera->shutdown();
    }
}

}  // namespace
}  // namespace selvio
