// What the camera's model does not see.
#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/base/SerialQueue.h>

#include <barrier>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "CameraRig.h"
#include "camera/rules/RecordingRules.h"

namespace {

using namespace selvio;

TEST(Camera, ItsArchiveHoldsItsFrame) {
    CameraRig rig;
    const std::string before = R"({"Frame":[1.0,2.0,3.0,4.0]})", other = R"({"Frame":[5.0,6.0,7.5,8.0]})";
    for (const char* archive : {"{", R"({"Frame":[5,6,null,8]})", R"({"Frame":[5,6,7.5]})", R"({"Frame":{"a":5}})"})
        EXPECT_EQ(Camera::initWithCoder(archive, rig.platform)->encodeWithCoder(), before) << archive;
    const auto camera = Camera::initWithCoder(other, rig.platform);
    EXPECT_EQ(std::pair(camera->encodeWithCoder(), camera->view()->frame()),
              std::pair(other, Rect{5.0, 6.0, 7.5, 8.0}));
}

TEST(Camera, ShutDownOrReleasedInTheMiddleLeavesNothing) {
    for (const bool released : {false, true}) {
        CameraRig rig;
        std::weak_ptr<Camera> camera;
        rig.platform.makeSerialQueue = [&, make = rig.platform.makeSerialQueue](const std::string& label) {
            if (label == kCodes) released ? rig.camera.reset() : rig.camera->shutdown();
            EXPECT_FALSE(released && label == kCodes && !camera.expired()) << "kept until the configuration ends";
            return make(label);
        };
        rig.make();
        camera = rig.camera;
        rig.camera->parameters()->setRecordAudio(true);
        rig.camera->setDetectPDF417(true);
        rig.configure();
        EXPECT_TRUE(rig.queues.contains(kCodes));
        EXPECT_TRUE(rig.system->session->outputs().empty() && rig.system->session->inputs().empty());
        EXPECT_FALSE(!released && (rig.camera->metaDataOutput() || rig.camera->isConfigured()));
        EXPECT_THAT(rig.log.take(), testing::Not(testing::Contains(testing::ContainsRegex("Can't|Could|Failed|told"))));
    }
}

// A delegate call that runs is waited for, but not by one.
TEST(Camera, ShutdownWaitsForTheCallThatRuns) {
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

TEST(Camera, FileNamesAreInLocalTime) {
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

TEST(CameraStress, ControlFromManyThreadsAgainstRunningFrames) {
    constexpr int kRounds = 60;
    const auto drain = [](const std::shared_ptr<Queue>& queue) { dynamic_cast<SerialQueue&>(*queue).drain(); };
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
        const int seen = frames;
        EXPECT_GT(seen, 0);
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
