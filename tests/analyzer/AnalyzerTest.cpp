// What the model of a capture leaves out: several threads, and foreign code that calls the analyzer back.
#include <SelvioFacialCapture/base/ConcurrentQueue.h>
#include <SelvioFacialCapture/base/MainQueue.h>

#include <barrier>
#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "analyzer/AnalyzerFixture.h"
#include "support/Random.h"

namespace {

using namespace selvio;

using Delegate = SelvioFacialCaptureAnalyzerDelegate;
using UxpEvents = SelvioFacialCaptureUxpEventManager;
using ::testing::Pointwise;

MATCHER(HasPart, "") {
    return std::get<0>(arg).find(std::get<1>(arg)) != std::string::npos;
}

struct Analyzer : ::testing::Test, ManualAnalyzer {
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
    delegate->detectionCancelled = [&](const auto&) { analyzer.reset(), throw std::runtime_error("disk full"); };
    analyzer->cancel();
    EXPECT_EQ(analyzer, nullptr);
    EXPECT_TRUE(!motion->isRunning() && UxpEvents::sharedInstance()->events().empty());

    serviceLevel = 11;
    makeAnalyzer(platform());
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
    const std::function<void(Platform&)> losses[] = {
        [](Platform& ports) { ports.mainQueue = nullptr; }, [](Platform& ports) { ports.globalQueue = nullptr; },
        [](Platform& ports) { ports.makeSerialQueue = nullptr; },
        [](Platform& ports) { ports.makeSerialQueue = [](const auto&) { return nullptr; }; }};
    for (const auto& lose : losses) {
        Platform lacking = platform();
        lose(lacking);
        EXPECT_EQ(SelvioFacialCaptureAnalyzer::initWithParameters(parameters, lacking), nullptr);
    }
    EXPECT_THAT(log.take(), Pointwise(HasPart(), {"without parameters", "without queues", "without queues",
                                                  "without queues", "without an analysis queue"}));

    // Without the other ports it only keeps frames, and says so.
    Platform bare;
    bare.mainQueue = mainQueue;
    bare.globalQueue = globalQueue;
    bare.makeSerialQueue = platform().makeSerialQueue;
    makeAnalyzer(bare);
    EXPECT_THAT(log.take(),
                Pointwise(HasPart(), {"The platform has no screen", "The platform has no makeSequenceRequestHandler",
                                      "The platform has no makeFaceDetector", "The platform has no imageCodec",
                                      "The platform has no device", "The platform has no makeMotionManager",
                                      "The platform has no imageLoader", "destroyed without stop"}));
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
    EXPECT_THAT(log.take(), Pointwise(HasPart(), {"begins before another one was stopped", "which has lost its events",
                                                  "destroyed without stop"}));
    makeAnalyzer(platform());
    analyzer->resume();
    analyzer->cancel();
    analyzer.reset();
    makeAnalyzer(platform());
    analyzer->stop();
    EXPECT_THAT(log.take(), ::testing::IsEmpty()) << "one after another is as it should be";
    makeAnalyzer(platform());
    analyzer->pauseFor(1);
    analyzer.reset();
    EXPECT_THAT(log.take(), Pointwise(HasPart(), {"destroyed without stop"})) << "one that has never been resumed";
}

TEST_F(Analyzer, ShowsWhatItWasMadeOfAndLeavesOutAFrameOrARecordThatIsNull) {
    EXPECT_EQ(motion->interval, std::chrono::milliseconds(300));
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
        Random random(seed * 10 + thread + 1);
        const std::function<void()> operations[] = {
            [&] { analyzer.resume(), analyzer.selectFrame(); },
            [&] { random.oneIn(2) ? analyzer.resume() : analyzer.pauseFor(1); },
            [&] { analyzer.updateMode(random.oneIn(2) ? 1 : 2); },
            [&] { capture.parameters->setSelectOnSmile(random.oneIn(2)); },
            [&] { capture.parameters->setCountdownTime(random.oneIn(2) ? 0 : 2); },
            [&] { capture.motion->rotate({.x = random.oneIn(2) ? 1.0 : 0.0}); },
            [&] { analyzer.setDelegate(delegate); },
            [&] { capture.vision->setObservations(std::vector(random.engine() % 3, ScreenFace{}.observation())); },
            [&] { analyzer.analyzeImageAtPath("still"), (void)analyzer.imagesArray(); },
        };
        for (int i = 0; i < 60; ++i) random.any(operations)();
        together.arrive_and_wait();
        random.oneIn(2) ? analyzer.stop() : analyzer.cancel();
        ended = true;
        EXPECT_EQ(analyzer.results(), nullptr);
    };
    std::vector<std::future<void>> hosts;
    for (unsigned thread = 0; thread < 3; ++thread) hosts.push_back(std::async(std::launch::async, control, thread));
    const auto mainThread = std::async(std::launch::async, [&] { mainQueue->run(); });
    const auto camera = std::async(std::launch::async, [&] {
        while (running) analyzer.analyzeSampleBuffer(blankFrame());
    });
    hosts.clear();  // once all have ended it
    EXPECT_FALSE(capture.motion->isRunning());
    running = false;
    mainQueue->async([&] { mainQueue->quit(); });
}

TEST(Stress, ACaptureThatThreeThreadsEndAtOnceEndsOnce) {
    for (unsigned seed = 0; seed < 100; ++seed) runCapture(seed);
}

// A delegate call that stop and cancel on another thread wait for, and which may stop the capture itself.
TEST_F(Analyzer, WaitsInStopAndCancelForADelegateCallOnAnotherThread) {
    for (const int variant : {0, 1, 2, 3}) {
        const bool cancels = variant % 2 == 1, stopsInside = variant > 1;
        makeAnalyzer(platform());
        analyzer->resume();
        std::future<void> ending;
        std::atomic<bool> callEnded{false};
        nlohmann::json record;
        delegate->detectionResults = [&](const auto&) {
            ending = std::async(std::launch::async, [&] {
                cancels ? analyzer->cancel() : analyzer->stop();
                EXPECT_TRUE(callEnded);
            });
            // It has begun once frames are taken no more.
            do {
                analysisQueue->runAll();
                std::this_thread::yield();
                analyzer->analyzeSampleBuffer(blankFrame());
            } while (analyzer->inProgress());
            EXPECT_EQ(ending.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
            if (stopsInside) analyzer->stop();
            callEnded = true;
        };
        delegate->detectionCancelled = [&](const auto& told) {
            record = nlohmann::json::parse(*told->obixDataString());
        };
        analyzer->setDelegate(delegate);
        send();
        mainQueue->runNext();
        ending.get();
        EXPECT_EQ(record["UXP"].size(), cancels ? 3U : 0U) << record;  // the start, nobody, the cancellation
        EXPECT_TRUE(UxpEvents::sharedInstance()->events().empty() && !analyzer->results());
        mainQueue->runAll();
    }
}

// This hangs if the analyzer holds a lock of its own meanwhile. The model's random captures call back from the
// detectors, the codec, the log and the delegate.
TEST(Threads, ClockDeviceMotionManagerAndThePicturesOwnerMayControlTheCapture) {
    using Analyzer = SelvioFacialCaptureAnalyzer;
    UxpEvents::destroySharedInstance();
    for (const auto operation : {&Analyzer::resume, &Analyzer::pause, &Analyzer::stop, &Analyzer::cancel}) {
        for (const int place : {0, 1, 2, 3}) {
            ManualAnalyzer capture;
            const auto clock = std::make_shared<ManualClock>();
            UxpEvents::setSharedClock(clock);
            capture.makeAnalyzer(capture.platform());
            int calls = 0, released = 0;
            std::function<void()> duringReleases = [] {};
            // What is asked from inside calls again.
            std::function<void()>* const ports[] = {&clock->callBack, &capture.device->duringQuestions,
                                                    &capture.motion->duringCalls, &duringReleases};
            *ports[place] = [&, inside = false]() mutable {
                if (calls == 20 || std::exchange(inside, true)) return;
                ++calls;
                ((*capture.analyzer).*operation)();
                (void)capture.analyzer->imagesArray();
                inside = false;
            };
            capture.analyzer->resume();
            capture.analyzer->analyzeSampleBuffer(blankFrame());
            capture.analysisQueue->runAll();
            const auto pixels = PixelBuffer::create(16, 16, kPixelFormat32BGRA);
            for (int i = 0; i < 7; ++i) {  // and five are kept
                capture.loader->picture = {pixels.get(), [&](auto*) { duringReleases(), ++released; }};
                capture.analyzer->analyzeImageAtPath("still.jpg");
            }
            capture.mainQueue->runAll();
            EXPECT_GT(calls, 0) << place;
            capture.loader->picture = nullptr;
            capture.analyzer->cancel();
            EXPECT_TRUE(!capture.motion->isRunning() && !capture.analyzer->results() && released == 7);
            UxpEvents::setSharedClock(nullptr);
            UxpEvents::destroySharedInstance();
        }
    }
}

}  // namespace
