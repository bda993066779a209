// What the model of a capture leaves out: several threads, and foreign code that calls the analyzer back.
#include <SelvioFacialCapture/base/ConcurrentQueue.h>
#include <SelvioFacialCapture/base/MainQueue.h>

#include <barrier>
#include <future>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "analyzer/AnalyzerFixture.h"

namespace selvio {
namespace {

using Delegate = SelvioFacialCaptureAnalyzerDelegate;
using UxpEvents = SelvioFacialCaptureUxpEventManager;

class Analyzer : public ::testing::Test, public ManualAnalyzer {
protected:
    Analyzer() {
        UxpEvents::destroySharedInstance();
        makeAnalyzer(platform());
        analyzer->setDelegate(delegate);
        analyzer->resume();
    }
    void send() {
        analyzer->analyzeSampleBuffer(blankFrame());
        analysisQueue->runAll();
    }
    const std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
};

TEST_F(Analyzer, NeitherKeepsItsHostNorItselfAlive) {
    delegate->detectionCancelled = [&](const auto&) { analyzer.reset(); };
    analyzer->cancel();
    EXPECT_EQ(analyzer, nullptr);
    EXPECT_FALSE(motion->isRunning());

    Platform old = platform();
    old.serviceLevel = 11;
    makeAnalyzer(old);
    delegate->manualOnly = [&] { analyzer.reset(); };
    analyzer->setDelegate(delegate);
    EXPECT_EQ(analyzer, nullptr);

    makeAnalyzer(platform());
    analyzer->setDelegate(std::make_shared<Delegate>());  // one that the host does not keep
    EXPECT_EQ(analyzer->delegate(), nullptr);
}

TEST_F(Analyzer, IsNotMadeWithoutParametersOrQueues) {
    LogCapture log;
    EXPECT_EQ(SelvioFacialCaptureAnalyzer::initWithParameters(nullptr, platform()), nullptr);
    const auto noQueue = [](const std::string&) -> std::shared_ptr<Queue> { return nullptr; };
    const std::tuple<bool, bool, decltype(Platform::makeSerialQueue)> rows[] = {
        {false, true, platform().makeSerialQueue},
        {true, false, platform().makeSerialQueue},
        {true, true, nullptr},
        {true, true, noQueue}};
    for (const auto& [hasMain, hasGlobal, makeSerialQueue] : rows) {
        Platform lacking = platform();
        lacking.mainQueue = hasMain ? mainQueue : nullptr;
        lacking.globalQueue = hasGlobal ? globalQueue : nullptr;
        lacking.makeSerialQueue = makeSerialQueue;
        EXPECT_EQ(SelvioFacialCaptureAnalyzer::initWithParameters(parameters, lacking), nullptr);
    }
    using ::testing::HasSubstr;
    EXPECT_THAT(log.take(), ::testing::ElementsAre(HasSubstr("without parameters"), HasSubstr("without queues"),
                                                   HasSubstr("without queues"), HasSubstr("without queues"),
                                                   HasSubstr("without an analysis queue")));

    // Without the other ports it only keeps frames, and says so.
    Platform bare;
    bare.mainQueue = mainQueue;
    bare.globalQueue = globalQueue;
    bare.makeSerialQueue = platform().makeSerialQueue;
    makeAnalyzer(bare);
    std::vector<::testing::Matcher<std::string>> missing;
    for (const char* port : {"screen", "makeSequenceRequestHandler", "makeFaceDetector", "imageCodec", "device",
                             "makeMotionManager", "imageLoader"})
        missing.push_back(HasSubstr(std::string("The platform has no ") + port));
    missing.push_back(HasSubstr("let go of without stop"));  // the one before it
    EXPECT_THAT(log.take(), ::testing::ElementsAreArray(missing));
    analyzer->resume();
    analyzer->analyzeImageAtPath("still.jpg");
    send();
    EXPECT_EQ(analyzer->imagesArray().size(), 1U);
    EXPECT_EQ(analyzer->exifOrientationForCurrentDeviceOrientation(), 5U);
    analyzer->cancel();
}

TEST_F(Analyzer, SaysWhenCapturesMeetInTheEventLog) {
    LogCapture log;
    const auto first = analyzer;
    makeAnalyzer(platform());
    for (int i = 0; i < 2; ++i) analyzer->resume();
    first->stop();
    analyzer.reset();
    using ::testing::HasSubstr;
    EXPECT_THAT(log.take(),
                ::testing::ElementsAre(HasSubstr("begins before another one was stopped"),
                                       HasSubstr("which has lost its events"), HasSubstr("let go of without stop")));
    makeAnalyzer(platform());
    analyzer->resume();
    analyzer->cancel();
    analyzer.reset();
    makeAnalyzer(platform());
    analyzer->stop();
    EXPECT_THAT(log.take(), ::testing::IsEmpty()) << "one after another is as it should be";
}

TEST_F(Analyzer, ShowsWhatItWasMadeOfAndLeavesOutAFrameOrARecordThatIsNull) {
    EXPECT_EQ(motion->interval.load(), std::chrono::milliseconds(300));
    EXPECT_EQ(std::tuple(analyzer->delegate(), analyzer->statusbarOrientation(), analyzer->isDepthDetected()),
              std::tuple(delegate, InterfaceOrientation::Portrait, true));
    analyzer->pause();
    EXPECT_TRUE(analyzer->shouldSkipFrames());
    analyzer->setResolution({10, 20});
    EXPECT_EQ(analyzer->biggerPreviewSide(), 20);
    device->setOrientation(DeviceOrientation::LandscapeLeft);
    EXPECT_EQ(std::tuple(analyzer->exifOrientationForCurrentDeviceOrientation(),
                         analyzer->exifOrientationForDeviceOrientation(DeviceOrientation::PortraitUpsideDown),
                         analyzer->cgOrientationFrom(ImageOrientation::Left)),
              std::tuple(4U, 7U, 8U));
    analyzer->analyzeSampleBuffer(nullptr);
    EXPECT_FALSE(analyzer->inProgress());
    const auto other = SelvioFacialCaptureObixData::init(platform());
    for (const auto& record : {other, std::shared_ptr<SelvioFacialCaptureObixData>()}) analyzer->setObixData(record);
    EXPECT_EQ(analyzer->obixData(), other);
}

// This hangs if the analyzer holds a lock meanwhile.
TEST_F(Analyzer, LetsGoOfPicturesWhoseOwnerCallsBack) {
    int released = 0;
    std::vector<std::uint8_t> pixels(16 * 16 * 4);
    const auto layout = PixelBufferLayout::make(16, 16, kPixelFormat32BGRA, {64, 0}).value();
    for (int i = 0; i < 7; ++i) {
        loader->picture = PixelBuffer::wrap(layout, {pixels.data(), nullptr}, [&] {
            (void)analyzer->imagesArray();
            (void)analyzer->results();
            ++released;
        });
        analyzer->analyzeImageAtPath("still.jpg");
    }
    mainQueue->runAll();
    EXPECT_GE(released, 1) << "only five are kept";
    loader->picture = nullptr;
    analyzer->stop();
    EXPECT_EQ(released, 7);
}

using Operation = std::function<void()>;

// A camera's thread sends frames, three others call whatever comes; at last these end the capture, all at the same
// time.
void runCapture(unsigned seed) {
    const auto mainQueue = std::make_shared<MainQueue>();
    ManualAnalyzer capture;
    Platform platform = capture.platform();
    platform.mainQueue = mainQueue;
    platform.globalQueue = std::make_shared<ConcurrentQueue>("global");
    platform.makeSerialQueue = makePortablePlatform().makeSerialQueue;
    capture.makeAnalyzer(platform);
    auto& analyzer = *capture.analyzer;
    std::atomic<bool> isCancelled{false}, ended{false}, running{true};
    const auto delegate = std::make_shared<Delegate>();
    const auto tell = [&](const auto&) {
        std::this_thread::yield();
        EXPECT_FALSE(ended) << "a call after the capture's end, or still under way then";
        EXPECT_FALSE(isCancelled) << "a call after the cancellation";
    };
    delegate->detectionResults = delegate->detectionSuccess = tell;
    delegate->startCountdown = [&] { tell(nullptr), analyzer.selectFrame(); };
    delegate->detectionCancelled = [&](const auto& results) {
        tell(results);
        isCancelled = true;
        EXPECT_FALSE(results->selectedImage().has_value());  // of a selection that ran at the same time
    };
    analyzer.setDelegate(delegate);

    std::barrier together(3);
    const auto control = [&](unsigned thread) {
        std::minstd_rand random(seed * 10 + thread + 1);
        const auto oneIn = [&](unsigned n) { return random() % n == 0; };
        const Operation operations[] = {
            [&] { analyzer.resume(), analyzer.selectFrame(); },
            [&] { oneIn(2) ? analyzer.resume() : analyzer.pauseFor(1); },
            [&] { analyzer.updateMode(oneIn(2) ? 1 : 2); },
            [&] { capture.parameters->setSelectOnSmile(oneIn(2)); },
            [&] { capture.parameters->setCountdownTime(oneIn(2) ? 0 : 2); },
            [&] { capture.motion->rotate({.x = oneIn(2) ? 1.0 : 0.0}); },
            [&] { analyzer.setDelegate(delegate); },
            [&] { capture.vision->setObservations(std::vector(random() % 3, ScreenFace{}.observation())); },
            [&] { analyzer.analyzeImageAtPath("still"), (void)analyzer.imagesArray(); },
        };
        for (int i = 0; i < 60; ++i) operations[random() % std::size(operations)]();
        together.arrive_and_wait();
        oneIn(2) ? analyzer.stop() : analyzer.cancel();
        ended = true;
        EXPECT_EQ(analyzer.results(), nullptr);
    };
    std::vector<std::thread> hosts;
    for (unsigned thread = 0; thread < 3; ++thread) hosts.emplace_back(control, thread);
    std::thread mainThread([&] { mainQueue->run(); });
    std::thread camera([&] {
        while (running) analyzer.analyzeSampleBuffer(blankFrame());
    });
    for (std::thread& host : hosts) host.join();
    EXPECT_FALSE(capture.motion->isRunning());
    running = false;
    camera.join();
    mainQueue->async([&] { mainQueue->quit(); });
    mainThread.join();
}

TEST(Stress, ACaptureThatThreeThreadsEndAtOnceEndsOnce) {
    for (unsigned seed = 0; seed < 100; ++seed) runCapture(seed);
}

TEST_F(Analyzer, WaitsInStopAndCancelForADelegateCallOnAnotherThread) {
    for (const bool cancels : {false, true}) {
        makeAnalyzer(platform());
        std::future<void> ending;
        std::atomic<bool> callEnded{false};
        delegate->detectionResults = [&](const auto&) {
            ending = std::async(std::launch::async, [&] {
                cancels ? analyzer->cancel() : analyzer->stop();
                EXPECT_TRUE(callEnded);
            });
            EXPECT_EQ(ending.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
            callEnded = true;
        };
        analyzer->setDelegate(delegate);
        send();
        mainQueue->runAll();
        ending.get();
        EXPECT_EQ(analyzer->results(), nullptr);
    }
}

// The delegate call that a cancellation on another thread waits for stops the capture itself.
TEST_F(Analyzer, LeavesACancellationItsLogIfItIsStoppedInsideADelegateCall) {
    std::future<void> cancelling;
    nlohmann::json record;
    delegate->detectionResults = [&](const auto&) {
        cancelling = std::async(std::launch::async, [&] { analyzer->cancel(); });
        // The cancellation has begun once frames are taken no more.
        do {
            analysisQueue->runAll();
            std::this_thread::yield();
            analyzer->analyzeSampleBuffer(blankFrame());
        } while (analyzer->inProgress());
        analyzer->stop();
    };
    delegate->detectionCancelled = [&](const auto& told) { record = nlohmann::json::parse(*told->obixDataString()); };
    send();
    mainQueue->runNext();
    cancelling.get();
    EXPECT_EQ(record["UXP"].size(), 3U) << record;  // the start, nobody, the cancellation
    EXPECT_TRUE(UxpEvents::sharedInstance()->events().empty() && !analyzer->results());
}

// This hangs if the analyzer holds a lock of its own meanwhile. The model's random captures call back from the
// detectors, the codec, the log and the delegate.
TEST(Threads, ClockDeviceAndMotionManagerMayControlTheCapture) {
    using Analyzer = SelvioFacialCaptureAnalyzer;
    UxpEvents::destroySharedInstance();
    for (const auto operation : {&Analyzer::resume, &Analyzer::pause, &Analyzer::stop, &Analyzer::cancel}) {
        for (const int place : {0, 1, 2}) {
            ManualAnalyzer capture;
            const auto clock = std::make_shared<ManualClock>();
            UxpEvents::setSharedClock(clock);
            capture.makeAnalyzer(capture.platform());
            int calls = 0;
            // What is asked from inside calls again.
            std::function<void()>* const ports[] = {&clock->callBack, &capture.device->duringQuestions,
                                                    &capture.motion->duringCalls};
            *ports[place] = [&, inside = false]() mutable {
                if (calls == 20 || std::exchange(inside, true)) return;
                ++calls;
                ((*capture.analyzer).*operation)();
                inside = false;
            };
            capture.analyzer->resume();
            capture.analyzer->analyzeSampleBuffer(blankFrame());
            capture.analysisQueue->runAll();
            capture.mainQueue->runAll();
            capture.analyzer->cancel();
            EXPECT_GT(calls, 0) << place;
            EXPECT_TRUE(!capture.motion->isRunning() && !capture.analyzer->results());
            UxpEvents::setSharedClock(nullptr);
            UxpEvents::destroySharedInstance();
        }
    }
}

}  // namespace
}  // namespace selvio
