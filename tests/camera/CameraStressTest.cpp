// The camera under many hands, on real queues. What is wrong here shows best under the thread sanitizer.
#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/base/SerialQueue.h>

#include <barrier>
#include <thread>

#include "CameraRig.h"

namespace selvio {
namespace {

void drain(const std::shared_ptr<Queue>& queue) {
    dynamic_cast<SerialQueue&>(*queue).drain();
}

TEST(CameraStress, controlFromManyThreadsAgainstRunningFrames) {
    constexpr int kCameras = 5;
    constexpr int kRounds = 60;
    LogCapture log;  // refused second configurations
    for (int i = 0; i < kCameras; ++i) {
        CameraRig rig;
        const auto main = std::make_shared<MainQueue>(rig.clock);
        rig.platform.mainQueue = main;
        rig.platform.makeSerialQueue = [](const std::string& label) { return std::make_shared<SerialQueue>(label); };
        rig.capture->torch = true;
        rig.writing->finishesAtOnce = true;
        rig.make();
        rig.camera->parameters()->setRecordVideo(true);
        rig.camera->parameters()->setRecordAudio(true);

        std::atomic<int> frames{0};
        std::atomic<int> working{4};
        const auto delegate = std::make_shared<SelvioFacialCaptureCameraDelegate>();
        delegate->didFinishConfiguringSession = [] {};
        // A host that stops from within a frame, while others hold the session's monitor.
        delegate->didReceiveSampleBuffer = [&, weak = std::weak_ptr(rig.camera)](const auto&) {
            if (const auto camera = weak.lock(); camera && ++frames % 4 == 0) camera->stop();
        };
        rig.camera->setDelegate(delegate);
        drain(rig.camera->videoQueue());
        const auto video = rig.video();
        ASSERT_TRUE(video && rig.camera->isConfigured());

        std::barrier round(4);  // keeps the threads abreast, so that they do meet
        const auto loop = [&](auto&& body) {
            return std::thread([&, body] {
                for (int i = 0; i < kRounds; ++i) round.arrive_and_wait(), body(i);
                --working;
            });
        };
        std::vector<std::thread> threads;
        threads.push_back(loop([&](int) { rig.camera->start(), rig.camera->stop(); }));
        threads.push_back(loop([&](int i) {
            rig.camera->turnTorchOn();
            if (i % 2) rig.camera->turnTorchOff();
            (void)rig.camera->isTorchON(), (void)rig.camera->resolution(), (void)rig.camera->videoRecordingUrl();
        }));
        threads.push_back(loop([&](int i) {
            rig.camera->setDelegate(i % 3 ? delegate : nullptr);
            if (i % 8 == 0) rig.camera->discardRecording();
            if (i == kRounds * 3 / 4) rig.camera->shutdown();
        }));
        threads.push_back(loop([&](int) {
            video->deliver(frame());
            if (const auto audio = rig.audio()) audio->deliver(frame());
            drain(rig.camera->videoOutputQueue());
        }));
        while (working > 0) {
            rig.clock->advance(std::chrono::milliseconds(50));
            main->drain();
            std::this_thread::yield();
        }
        for (auto& thread : threads) thread.join();
        rig.camera->shutdown();
        EXPECT_FALSE(rig.camera->session());
        EXPECT_GT(frames, 0);

        drain(rig.camera->videoOutputQueue());
        const int seen = frames;
        video->deliver(frame());
        drain(rig.camera->videoOutputQueue());
        EXPECT_EQ(frames, seen) << "after the shutdown nothing is delivered";
        drain(rig.camera->videoQueue());  // a block that runs there hands its camera to the main queue
        rig.clock->advance(std::chrono::seconds(1));
        main->drain();
        const Strings calls = rig.capture->calls.take();
        const auto torch = std::find_if(calls.rbegin(), calls.rend(),
                                        [](const std::string& call) { return call.starts_with("camera torch "); });
        ASSERT_NE(torch, calls.rend());
        EXPECT_EQ(rig.camera->isTorchON(), *torch == "camera torch on");
        const std::weak_ptr<Camera> gone = rig.camera;
        rig.camera.reset();
        EXPECT_TRUE(gone.expired());
    }
}

}  // namespace
}  // namespace selvio
