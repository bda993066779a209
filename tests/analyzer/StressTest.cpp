// Every control operation against running frames, from several threads.
#include <SelvioFacialCapture/base/ConcurrentQueue.h>
#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/base/SerialQueue.h>

#include <random>
#include <thread>

#include "analyzer/AnalyzerFixture.h"

namespace selvio {
namespace {

// One capture: two threads send frames, three others call whatever comes, and at last one of them stops or cancels.
void runCapture(unsigned seed, std::atomic<int>& delivered) {
    const auto mainQueue = std::make_shared<MainQueue>();
    const AnalyzerFakes fakes;
    Platform platform = fakes.platform();
    platform.mainQueue = mainQueue;
    platform.globalQueue = std::make_shared<ConcurrentQueue>("global");
    const auto analyzer = SelvioFacialCaptureAnalyzer::initWithParameters(fakes.parameters, platform);
    const auto delegate = std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
    const auto read = [&](const std::shared_ptr<SelvioFacialCaptureResults>& results) {
        ASSERT_NE(results, nullptr);
        if (results->orderedStatuses()) ++delivered;
        EXPECT_TRUE(SelvioFacialCaptureResults::localizeKeyFrom(results->highestPriorityStatus()).has_value());
    };
    std::atomic<int> cancellations{0};
    delegate->detectionResults = read;
    delegate->startCountdown = [&] { analyzer->selectFrame(); };
    delegate->detectionSuccess = [&](const auto& results) {
        read(results);
        EXPECT_TRUE(results->obixDataString().has_value());
    };
    delegate->detectionCancelled = [&](const auto& results) {
        read(results);
        EXPECT_EQ(results->resultCode(), SelvioFacialCaptureResultCodeCancelled);
        EXPECT_FALSE(results->selectedImage().has_value());  // of a selection that ran at the same time
        ++cancellations;
    };
    analyzer->setDelegate(delegate);

    std::atomic<bool> running{true};
    std::thread mainThread([&] { mainQueue->run(); });
    std::vector<std::thread> cameras;
    for (int t = 0; t < 2; ++t) {
        cameras.emplace_back([&] {
            const auto frame = SampleBuffer::makeVideo(PixelBuffer::create(100, 170, kPixelFormat420v));
            while (running) analyzer->analyzeSampleBuffer(frame);
        });
    }
    std::vector<std::thread> hosts;
    for (unsigned t = 0; t < 3; ++t) {
        hosts.emplace_back([&, t] {
            std::minstd_rand random(seed * 10 + t + 1);
            const std::vector<std::function<void()>> operations = {
                [&] { analyzer->resume(); },
                [&] { analyzer->resume(); },
                [&] { analyzer->pauseFor(static_cast<std::int64_t>(random() % 6)); },
                [&] { analyzer->selectFrame(); },
                [&] { analyzer->updateMode(random() % 2 == 0 ? 1 : 2); },
                [&] { fakes.parameters->setSelectOnSmile(random() % 2 == 0); },
                [&] { fakes.parameters->setCountdownTime(static_cast<std::int64_t>(random() % 3)); },
                [&] { fakes.smiles->setSmiling(random() % 2 == 0); },
                [&] { fakes.motion->rotate({.x = random() % 2 == 0 ? 1.0 : 0.0}); },
                [&] { analyzer->setDelegate(delegate); },
                [&] {
                    fakes.vision->setObservations(
                        std::vector<FaceObservation>(random() % 3, ScreenFace{}.observation()));
                },
                [&] { fakes.vision->setObservations(std::vector<FaceObservation>{ScreenFace{}.observation()}); },
                [&] { analyzer->analyzeImageAtPath("still"); },
                [&] { (void)analyzer->imagesArray(); },
            };
            for (int i = 0; i < 300; ++i) {
                operations[random() % operations.size()]();
                if (i % 8 == 0) std::this_thread::yield();
            }
            if (t == 0) seed % 2 == 0 ? analyzer->stop() : analyzer->cancel();
            if (t == 1 && seed % 3 == 0) analyzer->cancel();
        });
    }
    for (std::thread& host : hosts) host.join();
    EXPECT_EQ(analyzer->results(), nullptr);
    EXPECT_FALSE(fakes.motion->isRunning());
    running = false;
    for (std::thread& camera : cameras) camera.join();
    EXPECT_LE(cancellations, 1);
    mainQueue->async([&] { mainQueue->quit(); });
    mainThread.join();
}

TEST(Stress, ControlOperationsFromManyThreadsAgainstFramesFromTwo) {
    std::atomic<int> delivered{0};
    for (unsigned seed = 0; seed < 12; ++seed) runCapture(seed, delivered);
    EXPECT_GT(delivered, 0);
}

}  // namespace
}  // namespace selvio
