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
