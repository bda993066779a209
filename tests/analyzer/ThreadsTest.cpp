// The analyzer on several threads, and among foreign code that calls it back.
#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/base/SerialQueue.h>

#include <barrier>
#include <future>
#include <random>
#include <thread>

#include "analyzer/AnalyzerFixture.h"

namespace selvio {
namespace {

using Operation = std::function<void()>;

/// What the delegate of a capture that ends on several threads checks.
struct Witness {
    void tell(const char* call, const std::shared_ptr<SelvioFacialCaptureResults>& results) {
        ++underWay;
        EXPECT_FALSE(ended) << call << " after the capture's end";
        EXPECT_FALSE(cancelled.load() && std::string_view(call) != "cancelled") << call << " after the cancellation";
        if (results) {
            EXPECT_TRUE(SelvioFacialCaptureResults::localizeKeyFrom(results->highestPriorityStatus()).has_value());
            ++told;
        }
        --underWay;
    }
    std::atomic<int> underWay{0}, told{0};
    std::atomic<bool> cancelled{false}, ended{false};
};

// Two threads send frames, three others call whatever comes; at last these end the capture, all at the same time.
int runCapture(unsigned seed) {
    const auto mainQueue = std::make_shared<MainQueue>();
    const AnalyzerFakes fakes;
    Platform platform = fakes.platform();
    platform.mainQueue = mainQueue;
    platform.globalQueue = std::make_shared<SerialQueue>("global");
    const auto analyzer = SelvioFacialCaptureAnalyzer::initWithParameters(fakes.parameters, platform);
    Witness witness;
    std::shared_ptr<SelvioFacialCaptureResults> cancelled;
    const auto delegate = std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
    delegate->detectionResults = [&](const auto& results) { witness.tell("results", results); };
    delegate->startCountdown = [&] { witness.tell("countdown", nullptr), analyzer->selectFrame(); };
    delegate->detectionSuccess = [&](const auto& results) { witness.tell("success", results); };
    delegate->detectionCancelled = [&](const auto& results) {
        EXPECT_FALSE(witness.cancelled.exchange(true)) << "cancelled twice";
        witness.tell("cancelled", results);
        cancelled = results;
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
    std::barrier together(3);
    std::vector<std::thread> hosts;
    for (unsigned t = 0; t < 3; ++t) {
        hosts.emplace_back([&, t] {
            std::minstd_rand random(seed * 10 + t + 1);
            const auto oneIn = [&](unsigned n) { return random() % n == 0; };
            const std::vector<Operation> operations = {
                [&] { analyzer->resume(); },
                [&] { analyzer->resume(); },
                [&] { analyzer->pauseFor(static_cast<std::int64_t>(random() % 6)); },
                [&] { analyzer->selectFrame(); },
                [&] { analyzer->updateMode(oneIn(2) ? 1 : 2); },
                [&] { fakes.parameters->setSelectOnSmile(oneIn(2)); },
                [&] { fakes.parameters->setCountdownTime(oneIn(2) ? 0 : 2); },
                [&] { fakes.smiles->setSmiling(oneIn(2)); },
                [&] { fakes.motion->rotate({.x = oneIn(2) ? 1.0 : 0.0}); },
                [&] { analyzer->setDelegate(delegate); },
                [&] { fakes.vision->setObservations(std::vector(random() % 3, ScreenFace{}.observation())); },
                [&] { fakes.vision->setObservations(std::vector{ScreenFace{}.observation()}); },
                [&] { analyzer->analyzeImageAtPath("still"); },
                [&] { (void)analyzer->imagesArray(); },
            };
            for (int i = 0; i < 60; ++i) {
                operations[random() % operations.size()]();
                if (i % 8 == 0) std::this_thread::yield();
            }
            together.arrive_and_wait();
            oneIn(2) ? analyzer->stop() : analyzer->cancel();
            witness.ended = true;
            EXPECT_EQ(witness.underWay, 0);
            EXPECT_EQ(analyzer->results(), nullptr);
        });
    }
    for (std::thread& host : hosts) host.join();
    const auto record = cancelled ? cancelled->obixDataString() : std::nullopt;
    EXPECT_FALSE(fakes.motion->isRunning());
    running = false;
    for (std::thread& camera : cameras) camera.join();
    mainQueue->async([&] { mainQueue->quit(); });
    mainThread.join();
    if (cancelled) {
        EXPECT_EQ(cancelled->resultCode(), SelvioFacialCaptureResultCodeCancelled);
        EXPECT_FALSE(cancelled->selectedImage().has_value());  // of a selection that ran at the same time
        EXPECT_TRUE(record && cancelled->obixDataString() == record);
    }
    return witness.told;
}

TEST(Stress, ACaptureThatThreeThreadsEndAtOnceEndsOnce) {
    int told = 0;
    for (unsigned seed = 0; seed < 100; ++seed) told += runCapture(seed);
    EXPECT_GT(told, 0);
}

TEST(Threads, StopWaitsForADelegateCallOnAnotherThread) {
    for (const bool cancels : {false, true}) {
        ManualAnalyzer capture;
        capture.makeAnalyzer();
        const auto delegate = std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
        std::future<void> ending;
        std::atomic<bool> callEnded{false};
        delegate->detectionResults = [&](const auto&) {
            ending = std::async(std::launch::async, [&] {
                cancels ? capture.analyzer->cancel() : capture.analyzer->stop();
                EXPECT_TRUE(callEnded);
            });
            EXPECT_EQ(ending.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
            callEnded = true;
        };
        capture.analyzer->setDelegate(delegate);
        capture.analyzer->analyzeSampleBuffer(blankFrame());
        capture.analysisQueue->runAll();
        capture.mainQueue->runAll();
        ending.get();
        EXPECT_EQ(capture.analyzer->results(), nullptr);
    }
}

// The delegate call that a cancellation on another thread waits for stops the capture itself.
TEST(Threads, AStopInsideADelegateCallLeavesACancellationItsLog) {
    ManualAnalyzer capture;
    SelvioFacialCaptureUxpEventManager::destroySharedInstance();
    capture.makeAnalyzer();
    auto& analyzer = *capture.analyzer;
    SelvioFacialCaptureAnalyzerDelegate calls;
    std::future<void> cancelling;
    nlohmann::json record;
    std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate> one, other;
    calls.detectionResults = [&](const auto&) {
        cancelling = std::async(std::launch::async, [&] { analyzer.cancel(); });
        const auto isTaken = [&](const auto& delegate) {
            std::this_thread::yield();
            analyzer.setDelegate(delegate);
            return analyzer.delegate() == delegate;
        };
        while (isTaken(one) && isTaken(other)) {
        }  // the cancellation has begun
        analyzer.stop();
    };
    calls.detectionCancelled = [&](const auto& results) { record = nlohmann::json::parse(*results->obixDataString()); };
    one = std::make_shared<SelvioFacialCaptureAnalyzerDelegate>(calls);
    other = std::make_shared<SelvioFacialCaptureAnalyzerDelegate>(calls);
    analyzer.setDelegate(one);
    analyzer.resume();
    analyzer.analyzeSampleBuffer(blankFrame());
    capture.analysisQueue->runAll();
    capture.mainQueue->runAll();
    cancelling.get();
    EXPECT_EQ(record["UXP"].size(), 3U) << record;  // the start, nobody, the cancellation
    EXPECT_TRUE(SelvioFacialCaptureUxpEventManager::sharedInstance()->events().empty());
    EXPECT_EQ(analyzer.results(), nullptr);
}

/// A clock, device, loader or motion manager that calls the host back.
struct Intruder final : Clock, Device, MotionManager {
    explicit Intruder(Operation hook) : intrude(std::move(hook)) {}
    [[nodiscard]] double secondsSinceReferenceDate() const override { return intrude(), 0; }
    [[nodiscard]] std::chrono::nanoseconds monotonicTime() const override { return intrude(), std::chrono::seconds(1); }
    [[nodiscard]] std::string systemVersion() const override { return intrude(), "13.0"; }
    [[nodiscard]] std::string model() const override { return intrude(), "Kiosk"; }
    [[nodiscard]] std::string machineName() const override { return intrude(), "x86_64"; }
    [[nodiscard]] DeviceOrientation orientation() const override { return intrude(), DeviceOrientation::Portrait; }
    void setDeviceMotionUpdateInterval(std::chrono::nanoseconds) override { intrude(); }
    void startDeviceMotionUpdates(std::shared_ptr<Queue>, Handler) override { intrude(); }
    void stopDeviceMotionUpdates() override { intrude(); }
    const Operation intrude;
};

// Every foreign thing that a capture meets calls an operation back, and lets another thread call it too and waits for
// that: this hangs if the analyzer holds a lock of its own meanwhile.
TEST(Threads, ForeignCodeMayCallEveryOperation) {
    const char* const places[] = {"clock", "device", "motion", "log sink", "main queue", "vision", "smile", "codec"};
    using Analyzer = SelvioFacialCaptureAnalyzer;
    const auto delegate = std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
    int told = 0;
    delegate->detectionResults = [&](const auto&) { ++told; };
    delegate->detectionSuccess = delegate->detectionCancelled = delegate->detectionResults;
    const std::function<void(Analyzer&)> operations[] = {
        [](Analyzer& a) { a.resume(); },
        [](Analyzer& a) { a.pauseFor(1), a.resume(); },
        [](Analyzer& a) { a.selectFrame(), a.updateMode(2); },
        [&](Analyzer& a) { a.setDelegate(delegate), (void)a.imagesArray(), (void)a.results(); },
        [](Analyzer& a) { a.analyzeSampleBuffer(blankFrame()); },
        [](Analyzer& a) { a.stop(); },  // these two wait for what another thread is telling
        [](Analyzer& a) { a.cancel(); },
    };
    const std::size_t endsFrom = std::size(operations) - 2;
    for (const std::string place : places) {
        for (std::size_t o = 0; o < std::size(operations); ++o) {
            SCOPED_TRACE(place + ", operation " + std::to_string(o));
            std::shared_ptr<Analyzer> analyzer;
            int intrusions = 0;
            bool inside = false;
            const Operation hook = [&] {
                if (!analyzer || inside || ++intrusions > 20) return;  // a frame sent from inside makes another call
                inside = true;
                operations[o](*analyzer);
                if (o < endsFrom) std::thread([&] { operations[o](*analyzer); }).join();
                inside = false;
            };
            const auto at = [&](const char* name) { return place == name ? hook : Operation([] {}); };
            const auto mainQueue = std::make_shared<MainQueue>();
            ManualQueue global;
            std::shared_ptr<ManualQueue> analysis;
            const AnalyzerFakes fakes;
            Platform platform = fakes.platform();
            platform.device = std::make_shared<Intruder>(at("device"));
            platform.makeMotionManager = [&] { return std::make_shared<Intruder>(at("motion")); };
            platform.mainQueue = mainQueue;
            platform.globalQueue = std::shared_ptr<Queue>(std::shared_ptr<void>(), &global);
            platform.makeSerialQueue = [&](const std::string& label) {
                auto queue = std::make_shared<ManualQueue>(label);
                if (!analysis) analysis = queue;
                return queue;
            };
            mainQueue->setWakeUpHook(at("main queue"));
            fakes.vision->setDuringRequest([&](const auto&) { at("vision")(); });
            fakes.smiles->setDuringTest([&](const auto&) { at("smile")(); });
            fakes.codec->setDuringEncoding([&](const auto&) { at("codec")(); });
            const LogSink sink = setLogSink([&](std::string_view) { at("log sink")(); });
            SelvioFacialCaptureUxpEventManager::setSharedClock(std::make_shared<Intruder>(at("clock")));
            SelvioFacialCaptureUxpEventManager::destroySharedInstance();
            fakes.parameters->setSelectOnSmile(true);
            analyzer = Analyzer::initWithParameters(fakes.parameters, platform);
            analyzer->setDelegate(delegate);

            const auto send = [&](std::vector<FaceObservation> faces, bool smiling) {
                fakes.vision->setObservations(faces);
                fakes.smiles->setSmiling(smiling);
                analyzer->analyzeSampleBuffer(blankFrame());
                analysis->runAll();
                global.runAll();
                mainQueue->drain();
            };
            analyzer->resume();
            fakes.vision->setRequestError(Error{"blurred"});
            send({}, false);
            send({ScreenFace{}.observation()}, false);
            send({ScreenFace{}.observation()}, true);
            analyzer->pauseFor(2);
            analyzer->analyzeImageAtPath("missing.jpg");
            o % 2 == 0 ? analyzer->stop() : analyzer->cancel();
            EXPECT_GT(intrusions, 0);
            EXPECT_EQ(analyzer->results(), nullptr);
            setLogSink(sink);
            SelvioFacialCaptureUxpEventManager::setSharedClock(nullptr);
            SelvioFacialCaptureUxpEventManager::destroySharedInstance();
        }
    }
    EXPECT_GT(told, 0);
}

}  // namespace
}  // namespace selvio
