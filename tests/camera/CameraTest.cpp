// What the camera's model does not see.
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <thread>

#include "CameraRig.h"
#include "camera/rules/RecordingRules.h"

namespace selvio {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(Camera, initializers) {
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
        {[&] { return Camera::initWithCoder(R"({"Frame":[5,6,7.5]})", on); }, own, "1 0 - 0x0 0"},
        {[&] { return Camera::initWithCoder(R"({"Frame":{"a":5,"b":6,"c":7,"d":8}})", on); }, own, "1 0 - 0x0 0"},
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
        const auto archive = camera->encodeWithCoder();
        rig.view->setFrame(own);
        EXPECT_EQ(Camera::initWithCoder(archive, on)->view()->frame(), given);
    }
}

// Each port missing in turn: what does not need it still works, and nothing else does harm.
TEST(Camera, missingPorts) {
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
        EXPECT_EQ(rig.log.take().size(), row.works == all ? 0U : 1U) << &row - rows;
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

        rig.camera->updatePreviewLayer(VideoOrientation::Portrait);
        rig.notifications->post(ApplicationNotification::WillResignActive);
        rig.main->advance(std::chrono::milliseconds(100));
        rig.camera->stop();
        rig.camera->discardRecording();
        rig.camera->setParameters(nullptr);
        rig.camera->startRecording();
        rig.run();
        for (int i = 0; i < 2; ++i) rig.camera->shutdown();
    }
}

TEST(Camera, permissions) {
    const struct {
        AuthorizationStatus status;
        bool camera, microphone;
    } rows[] = {{AuthorizationStatus::NotDetermined, true, false},  // the fake's person grants video only
                {AuthorizationStatus::Denied, false, false},
                {AuthorizationStatus::Authorized, true, true}};
    for (const auto& row : rows) {
        CameraRig rig;
        rig.capture->authorization = row.status;
        std::optional<bool> camera, microphone;
        Camera::checkCameraPermission([&](bool granted) { camera = granted; }, rig.platform);
        Camera::checkMicrophonePermission([&](bool granted) { microphone = granted; }, rig.platform);
        EXPECT_EQ(camera, row.camera);
        EXPECT_EQ(microphone, row.microphone);
    }
}

TEST(Camera, shutDownInTheMiddleLeavesNothing) {
    CameraRig rig;
    std::shared_ptr<CaptureSession> session;
    rig.platform.makeSerialQueue = [&rig, &session, make = rig.platform.makeSerialQueue](const std::string& label) {
        if (label == "MetaDataOutputQueue") session = rig.camera->session(), rig.camera->shutdown();
        return make(label);
    };
    rig.makeConfigured(true, true);
    EXPECT_TRUE(session && session->outputs().empty() && !rig.camera->metaDataOutput() && !rig.camera->isConfigured());
    EXPECT_THAT(rig.log.take(), IsEmpty());
}

// A delegate call that runs is waited for, but not by one.
TEST(Camera, shutdownWaitsForTheCallThatRuns) {
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

// Whatever waits on the main queue, which the host need not run.
TEST(Camera, nothingQueuedKeepsTheCamera) {
    CameraRig rig;
    rig.capture->torch = true;
    rig.make();
    const std::weak_ptr<Camera> camera = rig.camera;
    rig.camera->setDelegate(rig.delegate);
    rig.camera->start();
    rig.runSessionQueue();
    rig.camera->turnTorchOn();
    rig.camera->start();
    rig.camera.reset();
    EXPECT_TRUE(camera.expired());
}

TEST(Camera, settingsKeepWhatTheyDoNotDecide) {
    const auto settings =
        rules::recordingSettings({"H264", 640, 480, {{"Profile", 7}, {"AverageBitRate", 1}}}, std::nullopt, 10, 13);
    EXPECT_EQ(std::pair(settings.width, settings.height), std::pair(640, 480)) << "the orientation cannot be known";
    EXPECT_EQ(settings.codec, "H264");
    EXPECT_EQ(settings.compressionProperties,
              (std::map<std::string, std::int64_t>{{"Profile", 7}, {"AverageBitRate", 1'500'000}}));
}

TEST(Camera, fileNamesAreInLocalTime) {
    const char* const before = std::getenv("TZ");
    const std::string saved = before ? before : "";
    const struct {
        const char* zone;
        double seconds;
        const char* name;
    } rows[] = {{"UTC0", 1.9996, "selvio_2001-01-01_00-00-01-999.mp4"},
                {"IST-5:30", 0.5, "selvio_2001-01-01_05-30-00-500.mp4"},
                {"EST5", -0.25, "selvio_2000-12-31_18-59-59-750.mp4"}};
    for (const auto& row : rows) {
        setenv("TZ", row.zone, 1);
        EXPECT_EQ((tzset(), rules::recordingFileName(row.seconds)), row.name);
        EXPECT_TRUE(rules::isLeftoverRecording(row.name));
    }
    before ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();
}

}  // namespace
}  // namespace selvio
