// What the camera's model does not see.
#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/base/SerialQueue.h>

#include <barrier>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "CameraRig.h"
#include "camera/rules/RecordingRules.h"

namespace selvio {
namespace {

TEST(Camera, initializers) {
    CameraRig rig;
    const Platform& on = rig.platform;
    const Rect given{5.0, 6.0, 7.5, 8.0};
    const auto front = CaptureDevicePosition::Front;
    rig.view->setFrame({1.0, 2.0, 3.0, 4.0});
    const auto state = [](const std::shared_ptr<Camera>& camera) {
        const auto [x, y, width, height] = camera->view()->frame();
        CallLog log;
        log.add(static_cast<int>(camera->devicePosition()), camera->pixelBufferFormat(),
                camera->sessionPreset().value_or("-"), camera->desiredResolution().width,
                static_cast<int>(camera->cameraOrientation()), "in", x, y, width, height);
        return log.take()[0];
    };
    EXPECT_EQ(state(Camera::init(on)), "1 0 - 0 0 in 1 2 3 4");
    EXPECT_EQ(rig.layer->gravity, kVideoGravityResizeAspectFill);
    for (const char* archive : {"{", R"({"Frame":[5,6,null,8]})", R"({"Frame":[5,6,7.5]})", R"({"Frame":{"a":5}})"})
        EXPECT_EQ(state(Camera::initWithCoder(archive, on)), "1 0 - 0 0 in 1 2 3 4") << archive;
    EXPECT_EQ(state(Camera::initWithPreset("High", 32, front, VideoOrientation::LandscapeLeft, given, on)),
              "2 32 High 0 4 in 5 6 7.5 8");
    EXPECT_EQ(state(Camera::initWithDesiredResolution({640, 480}, 32, front, given, on)), "2 32 - 640 0 in 5 6 7.5 8");
    const auto archive = Camera::initWithPreset("High", 32, front, given, on)->encodeWithCoder();
    rig.view->setFrame({});
    EXPECT_EQ(state(Camera::initWithCoder(archive, on)), "1 0 - 0 0 in 5 6 7.5 8");
}

// Each port missing in turn: what does not need it still works, and nothing else does harm.
TEST(Camera, missingPorts) {
    const std::string all = "configured frame writing torch ", noFile = "configured frame torch ";
    const std::pair<void (*)(Platform&), std::string> rows[] = {
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
    };
    for (const auto& [remove, right] : rows) {
        CameraRig rig;
        rig.capture->torch = rig.capture->finishesAtOnce = true;
        remove(rig.platform);
        rig.make();
        Camera& camera = *rig.camera;
        EXPECT_EQ(rig.log.take().size(), right == all ? 0U : 1U);
        camera.parameters()->setRecordVideo(true);
        rig.configure();
        camera.start();
        rig.run();
        if (const auto& video = rig.system->video) video->deliver(frame());
        rig.run();
        std::string works;
        for (const std::string& call : rig.log.take())
            if (call.starts_with("told ")) works += call.substr(5) + " ";
        if (camera.assetWriter()) works += "writing ";
        if (camera.turnTorchOn()) works += "torch ";
        EXPECT_EQ(works, right) << "row " << &right - &rows[0].second;

        camera.updatePreviewLayer(VideoOrientation::Portrait);
        rig.notifications->post(ApplicationNotification::WillResignActive);
        rig.queues[kMain]->advance(std::chrono::milliseconds(100));
        camera.stop();
        camera.discardRecording();
        camera.setParameters(nullptr);
        camera.startRecording();
        rig.run();
        for (int i = 0; i < 2; ++i) camera.shutdown();
    }
}

TEST(Camera, permissions) {
    using enum AuthorizationStatus;
    // The fake's person, who is asked when nothing is determined, grants video only.
    for (const auto& [status, camera, microphone] :
         {std::tuple(NotDetermined, true, false), {Denied, false, false}, {Authorized, true, true}}) {
        CameraRig rig;
        rig.capture->authorization = status;
        std::vector<bool> granted;
        Camera::checkCameraPermission([&](bool is) { granted.push_back(is); }, rig.platform);
        Camera::checkMicrophonePermission([&](bool is) { granted.push_back(is); }, rig.platform);
        EXPECT_EQ(granted, (std::vector{camera, microphone}));
    }
}

TEST(Camera, shutDownInTheMiddleLeavesNothing) {
    CameraRig rig;
    rig.platform.makeSerialQueue = [&rig, make = rig.platform.makeSerialQueue](const std::string& label) {
        if (label == kCodes) rig.camera->shutdown();
        return make(label);
    };
    rig.make();
    rig.camera->parameters()->setRecordAudio(true);
    rig.camera->setDetectPDF417(true);
    rig.configure();
    EXPECT_TRUE(rig.queues.contains(kCodes));
    EXPECT_TRUE(rig.system->session->outputs().empty() && !rig.camera->metaDataOutput());
    EXPECT_FALSE(rig.camera->isConfigured());
    EXPECT_THAT(rig.log.take(), testing::Not(testing::Contains(testing::ContainsRegex("Can't|Could|Failed|told"))));
}

TEST(Camera, theViewEndsOnTheMainQueueWhereverTheCameraDoes) {
    CameraRig rig;
    rig.platform.makeView = {};
    rig.make();
    const std::weak_ptr<View> view = rig.camera->view();
    rig.run();
    std::thread([&] { rig.camera.reset(); }).join();
    EXPECT_FALSE(view.expired());
    rig.run();
    EXPECT_TRUE(view.expired());
}

// A delegate call that runs is waited for, but not by one.
TEST(Camera, shutdownWaitsForTheCallThatRuns) {
    for (const bool fromWithin : {false, true}) {
        CameraRig rig;
        rig.make();
        rig.configure();
        std::atomic<bool> entered{false}, returned{false}, tooEarly{false};
        rig.delegate->didReceiveSampleBuffer = [&](const auto&) {
            if (fromWithin) return rig.camera->shutdown();
            entered = true;
            const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
            while (!returned && std::chrono::steady_clock::now() < end) std::this_thread::yield();
            rig.camera->stop();  // which wants the monitor
            tooEarly = returned.load();
        };
        rig.system->video->deliver(frame());
        std::thread output([&] { rig.queues[kOutput]->runAll(); });
        while (!entered && !fromWithin) std::this_thread::yield();
        if (!fromWithin) rig.camera->shutdown();
        returned = true;
        output.join();
        EXPECT_FALSE(tooEarly || rig.camera->session());
    }
}

TEST(Camera, fileNamesAreInLocalTime) {
    for (const auto& [zone, seconds, name] : {std::tuple("UTC0", 1.9996, "selvio_2001-01-01_00-00-01-999.mp4"),
                                              {"IST-5:30", 0.5, "selvio_2001-01-01_05-30-00-500.mp4"},
                                              {"EST5", -0.25, "selvio_2000-12-31_18-59-59-750.mp4"}}) {
        setenv("TZ", zone, 1);
        EXPECT_EQ((tzset(), rules::recordingFileName(seconds)), name);
        EXPECT_TRUE(rules::isLeftoverRecording(name));
    }
    unsetenv("TZ");
}

// Under many hands, on real queues. What is wrong here shows best under the thread sanitizer.

void drain(const std::shared_ptr<Queue>& queue) {
    dynamic_cast<SerialQueue&>(*queue).drain();
}

TEST(CameraStress, controlFromManyThreadsAgainstRunningFrames) {
    constexpr int kRounds = 60;
    for (int i = 0; i < 5; ++i) {
        CameraRig rig;
        const auto main = std::make_shared<MainQueue>(rig.clock);
        rig.platform.mainQueue = main;
        rig.platform.makeSerialQueue = [](const std::string& label) { return std::make_shared<SerialQueue>(label); };
        rig.capture->torch = rig.capture->finishesAtOnce = true;
        rig.make();
        rig.camera->parameters()->setRecordVideo(true);
        rig.camera->parameters()->setRecordAudio(true);

        std::atomic<int> frames{0};
        const auto delegate = std::make_shared<Delegate>();
        // A host that stops from within a frame, while others hold the session's monitor.
        delegate->didReceiveSampleBuffer = [&, weak = std::weak_ptr(rig.camera)](const auto&) {
            if (const auto camera = weak.lock(); camera && ++frames % 4 == 0) camera->stop();
        };
        rig.camera->setDelegate(delegate);
        drain(rig.camera->videoQueue());
        const auto video = rig.system->video;

        const std::function<void(int)> works[] = {
            [&](int) { rig.camera->start(), rig.camera->stop(); },
            [&](int round) {
                rig.camera->turnTorchOn();
                if (round % 2) rig.camera->turnTorchOff();
                (void)rig.camera->isTorchON(), (void)rig.camera->resolution(), (void)rig.camera->videoRecordingUrl();
            },
            [&](int round) {
                rig.camera->setDelegate(round % 3 ? delegate : nullptr);
                if (round % 8 == 0) rig.camera->discardRecording();
                if (round == kRounds * 3 / 4) rig.camera->shutdown();
            },
            [&](int) {
                video->deliver(frame());
                drain(rig.camera->videoOutputQueue());
                rig.clock->advance(std::chrono::milliseconds(50));
            },
        };
        std::barrier round(std::ssize(works));  // keeps the threads abreast, so that they do meet
        std::vector<std::thread> threads;
        for (const auto& work : works) {
            threads.emplace_back([&] {
                for (int r = 0; r < kRounds; ++r) round.arrive_and_wait(), work(r);
            });
        }
        for (auto& thread : threads) thread.join();
        EXPECT_FALSE(rig.camera->session());
        EXPECT_GT(frames, 0);
        const int seen = frames;
        video->deliver(frame());
        drain(rig.camera->videoOutputQueue());
        EXPECT_EQ(frames, seen) << "after the shutdown nothing is delivered";
        drain(rig.camera->videoQueue());  // a block that runs there hands its camera to the main queue
        rig.clock->advance(std::chrono::seconds(1));
        main->drain();
        const std::weak_ptr<Camera> gone = rig.camera;
        rig.camera.reset();
        EXPECT_TRUE(gone.expired());
    }
}

}  // namespace
}  // namespace selvio
