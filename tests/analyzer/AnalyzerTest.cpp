// Lifecycle, intake and manual selection.
#include <thread>

#include "analyzer/AnalyzerFixture.h"

namespace selvio {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class Lifecycle : public AnalyzerFixture {};
class Intake : public AnalyzerFixture {};
class ManualSelection : public AnalyzerFixture {};

TEST_F(Lifecycle, OldSystemsAreManualOnly) {
    struct Row {
        const char* version;
        bool manualOnly;
    };
    for (const Row& row : {Row{"10.3", true}, Row{"11.9", true}, Row{"12.0", false}, Row{"13", false}, Row{"", true}}) {
        parameters->setMode(2);
        calls.clear();
        make(row.version);
        EXPECT_EQ(analyzer->manualOnly(), row.manualOnly) << row.version;
        EXPECT_EQ(parameters->mode(), row.manualOnly ? 1 : 2) << row.version;
        EXPECT_EQ(calls.size(), row.manualOnly ? 1U : 0U) << row.version;
    }
    EXPECT_EQ(SelvioFacialCaptureAnalyzer::initWithParameters(nullptr), nullptr);

    // Not before there is a delegate.
    parameters->setMode(2);
    device = std::make_shared<FakeDevice>("9.1");
    const auto old = SelvioFacialCaptureAnalyzer::initWithParameters(parameters, platform());
    old->setDelegate({});
    EXPECT_FALSE(old->manualOnly());
    EXPECT_EQ(parameters->mode(), 2);
}

TEST_F(Lifecycle, PauseReasonsCrossOverInTheLog) {
    make();
    for (const int reason : {0, 1, 2, 3, 4, 5, -1}) analyzer->pauseFor(reason);
    analyzer->pause();
    EXPECT_THAT(loggedEvents(), ElementsAre("IS", "HS", "MF", "RS"));
}

TEST_F(Lifecycle, ResumeClearsTheFlagsLogsTheModeAndStartsTheMotionFeed) {
    make();
    analyzer->pause();
    analyzer->selectFrame();
    EXPECT_FALSE(motion->isRunning());
    analyzer->resume();
    EXPECT_TRUE(motion->isRunning());
    EXPECT_EQ(motion->interval(), std::chrono::milliseconds(300));
    EXPECT_FALSE(analyzer->shouldSkipFrames());
    EXPECT_FALSE(analyzer->shouldSelectCurrentFrame());
    parameters->setRoll(700);
    analyzer->updateMode(1);
    const auto firstQueue = motion->queue();
    analyzer->resume();
    EXPECT_NE(motion->queue(), firstQueue);  // each feed has a queue of its own
    EXPECT_THAT(loggedEvents(), ElementsAre("SA", "SS"));
    EXPECT_EQ(analyzer->obixData()->obixDataDictionary().at("Parameters").at("Roll"), "500");  // the first ones win
    analyzer->pause();
    EXPECT_FALSE(motion->isRunning());
}

TEST_F(Lifecycle, AnyAxisBeyondATenthOfARadianIsMoving) {
    make();
    analyzer->resume();
    struct Row {
        RotationRate rate;
        bool moving;
    };
    for (const Row& row :
         {Row{{0.1, 0, 0}, false}, Row{{0, -0.11, 0}, true}, Row{{0, 0, 0.2}, true}, Row{{-0.1, 0.1, -0.1}, false}, Row{{0.3, 0, 0}, true}}) {
        motion->rotate(row.rate);
        EXPECT_EQ(analyzer->shouldHoldStill(), row.moving);
    }
}

TEST_F(Lifecycle, CancelClosesTheRecordTellsTheHostAtOnceAndSpendsTheAnalyzer) {
    make();
    analyzer->resume();
    delegate->detectionCancelled = [&](const auto& results) {
        EXPECT_THAT(loggedEvents(), ElementsAre("SA", "C"));  // the log is still there
        EXPECT_NE(analyzer->parameters(), nullptr);
        cancelled = results;
    };
    analyzer->cancel();
    ASSERT_NE(cancelled, nullptr);
    EXPECT_EQ(cancelled->resultCode(), SelvioFacialCaptureResultCodeCancelled);
    EXPECT_EQ(record(cancelled).at("SelvioResultCode"), "Cancelled");
    EXPECT_EQ(record(cancelled).at("UXP").size(), 2U);
    EXPECT_FALSE(record(cancelled).contains("Autocapture"));
    EXPECT_EQ(cancelled->selectedImage().has_value() || cancelled->encodedSelectedImage().has_value(), false);
    EXPECT_EQ(analyzer->parameters(), nullptr);
    EXPECT_EQ(analyzer->results(), nullptr);
    EXPECT_FALSE(motion->isRunning());
    EXPECT_THAT(loggedEvents(), IsEmpty());

    // Spent: nothing happens any more, and the next capture's log stays clean.
    analyzer->resume();
    analyzer->pauseFor(1);
    analyzer->selectFrame();
    delegate->detectionCancelled = [&](const auto&) { ADD_FAILURE() << "told twice"; };
    analyzer->cancel();
    EXPECT_THAT(send(), IsEmpty());
    EXPECT_FALSE(analyzer->inProgress());
    EXPECT_FALSE(motion->isRunning());
    EXPECT_THAT(loggedEvents(), IsEmpty());
}

TEST_F(Lifecycle, TheHostMayLetGoOfTheAnalyzerWhenItIsCancelled) {
    make();
    delegate->detectionCancelled = [&](const auto&) { analyzer.reset(); };
    analyzer->cancel();
    EXPECT_EQ(analyzer, nullptr);
    EXPECT_FALSE(motion->isRunning());
}

TEST_F(Lifecycle, ACancelledCaptureIsNoSuccess) {
    make();
    show({ScreenFace{}});
    parameters->setSelectOnSmile(true);
    smiles->setSmiling(true);
    send();
    smiles->setSmiling(false);
    analyzer->analyzeSampleBuffer(frame());
    analysisQueue->runAll();
    globalQueue->runAll();  // selected, and on its way to the host
    calls.clear();
    analyzer->cancel();
    EXPECT_THAT(settle(), ElementsAre("cancelled code 3"));
    EXPECT_EQ(cancelled->selectedImage().has_value() || cancelled->encodedSelectedImage().has_value(), false);
    EXPECT_EQ(record(cancelled).at("SelvioResultCode"), "Cancelled");

    // From another thread in the middle of the encoding: the two do not mix.
    make();
    analyzer->resume();
    parameters->setSelectOnSmile(false);
    parameters->setCountdownTime(0);
    delegate->detectionSuccess = [](const auto&) {};
    std::thread other;
    codec->setDuringEncode([&] { other = std::thread([&] { analyzer->cancel(); }); });
    analyzer->analyzeSampleBuffer(frame());
    analysisQueue->runAll();
    mainQueue->runAll();
    other.join();
    EXPECT_EQ(cancelled->resultCode(), SelvioFacialCaptureResultCodeCancelled);
    EXPECT_EQ(record(cancelled).at("SelvioResultCode"), "Cancelled");
    EXPECT_EQ(cancelled->selectedImage().has_value(), false);
}

TEST_F(Lifecycle, WhatIsQueuedAtStopEndsQuietly) {
    make();
    show({ScreenFace{}, ScreenFace{}});
    analyzer->analyzeSampleBuffer(frame());
    analysisQueue->runAll();
    ASSERT_EQ(mainQueue->size(), 1U);
    analyzer->analyzeSampleBuffer(frame());
    analyzer->stop();
    EXPECT_THAT(settle(), IsEmpty());
    EXPECT_THAT(analyzer->imagesArray(), IsEmpty());

    delegate->detectionCancelled = nullptr;
    make();
    analyzer->cancel();  // a host that does not implement it: the analyzer stops all the same
    EXPECT_EQ(analyzer->results(), nullptr);

    make();
    analyzer->analyzeSampleBuffer(frame());
    analyzer.reset();
    analysisQueue->runAll();  // the owner has gone
    mainQueue->runAll();
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(Intake, OneFrameIsHeldAndTheOthersAreDropped) {
    make();
    analyzer->analyzeSampleBuffer(nullptr);
    EXPECT_FALSE(analyzer->inProgress());
    analyzer->analyzeSampleBuffer(frame());
    analyzer->analyzeSampleBuffer(frame());
    EXPECT_TRUE(analyzer->inProgress());
    EXPECT_EQ(analysisQueue->size(), 1U);
    settle();
    EXPECT_EQ(vision->count(), 1);
    EXPECT_FALSE(analyzer->inProgress());
}

TEST_F(Intake, TheFrameIsReleasedBeforeItsResultIsJudged) {
    make();
    vision->setRequestError(Error{"blurred"});
    std::vector<std::string> log;
    LogSink before = setLogSink([&](std::string_view message) {
        log.emplace_back(message);
        EXPECT_FALSE(analyzer->inProgress());
        analyzer->analyzeSampleBuffer(frame());  // accepted while this one's result is judged
        EXPECT_TRUE(analyzer->inProgress());
    });
    analyzer->analyzeSampleBuffer(frame());
    analysisQueue->runNext();
    setLogSink(before);
    EXPECT_THAT(log, ElementsAre("Detect face request error: blurred"));
    // The handler's return must not release the frame that came in meanwhile.
    EXPECT_TRUE(analyzer->inProgress());
    vision->setRequestError(std::nullopt);
    EXPECT_THAT(settle(), ElementsAre("results 1", "results 1"));
    EXPECT_EQ(vision->count(), 2);
}

TEST_F(Intake, EveryWayOutReleasesTheFrame) {
    LogCapture log;
    struct Row {
        const char* name;
        void (*arrange)(Intake&);
        std::shared_ptr<SampleBuffer> frame;
        std::vector<std::string> told;
        std::size_t kept;
    };
    const auto usual = frame();
    const std::vector<Row> rows = {
        {"analysed", [](Intake&) {}, usual, {"results 1"}, 1},
        {"no picture", [](Intake&) {}, SampleBuffer::makeVideo(nullptr), {}, 0},
        {"audio", [](Intake&) {}, SampleBuffer::makeAudio({}, {}), {}, 0},
        {"zero-sized", [](Intake&) {}, SampleBuffer::makeVideo(PixelBuffer::wrap({.width = 0, .height = 0}, {nullptr, nullptr}, {})), {}, 0},
        {"handler error", [](Intake& t) { t.vision->setHandlerError(Error{"no model"}); }, usual, {}, 1},
        {"paused", [](Intake& t) { t.analyzer->pause(); }, usual, {}, 1},
        {"old system", [](Intake& t) { t.make("11.4"); }, usual, {"manualOnly"}, 1},
        {"stopped while queued", [](Intake& t) { t.vision->setDuringRequest([&t] { t.analyzer->stop(); }); }, usual, {}, 0},
        {"paused during the request", [](Intake& t) { t.vision->setDuringRequest([&t] { t.analyzer->pause(); }); }, usual, {}, 1},
    };
    for (const Row& row : rows) {
        vision->setHandlerError(std::nullopt);
        vision->setDuringRequest(nullptr);
        parameters->setMode(2);
        make();
        row.arrange(*this);
        analyzer->analyzeSampleBuffer(row.frame);
        EXPECT_TRUE(analyzer->inProgress()) << row.name;
        EXPECT_THAT(settle(), ElementsAreArray(row.told)) << row.name;
        EXPECT_FALSE(analyzer->inProgress()) << row.name;
        EXPECT_EQ(analyzer->imagesArray().size(), row.kept) << row.name;
    }
    EXPECT_THAT(log.take(), ElementsAre("RBGBuffereCopyWithPixelBuffer :: failed", "SequenceRequestHandler couldn't perform requests: no model"));
}

TEST_F(Intake, NoFaceAndSeveralFacesAreSaidAndLogged) {
    make();
    show({});
    EXPECT_THAT(send(), ElementsAre("results 1"));
    show({ScreenFace{}, ScreenFace{}, ScreenFace{}});
    EXPECT_THAT(send(), ElementsAre("results 2"));
    EXPECT_THAT(loggedEvents(), ElementsAre("FENF", "FEMF"));
    EXPECT_EQ(vision->lastRevision(), 3);
    EXPECT_EQ(vision->lastOrientation(), 5U);
    device->setOrientation(DeviceOrientation::LandscapeLeft);
    send();
    EXPECT_EQ(vision->lastOrientation(), 4U);
    EXPECT_EQ(analyzer->exifOrientation(), 4U);
    make("12.1");
    send();
    EXPECT_EQ(vision->lastRevision(), 2);
}

// Reads the time when an event is logged: what it sees then is what came before.
class WitnessClock final : public Clock {
public:
    explicit WitnessClock(std::function<void()> witness) : witness_(std::move(witness)) {}
    [[nodiscard]] double secondsSinceReferenceDate() const override {
        witness_();
        return 0;
    }
    [[nodiscard]] std::chrono::nanoseconds monotonicTime() const override { return {}; }

private:
    const std::function<void()> witness_;
};

TEST_F(Intake, StatusesAreStoredThenLoggedThenDelivered) {
    make();
    show({});
    SelvioFacialCaptureUxpEventManager::destroySharedInstance();
    std::vector<std::string> seen;
    SelvioFacialCaptureUxpEventManager::setSharedClock(std::make_shared<WitnessClock>(
        [&] { seen.push_back("logged with status " + std::to_string(analyzer->results()->highestPriorityStatus())); }));
    (void)SelvioFacialCaptureUxpEventManager::sharedInstance();
    seen.clear();
    delegate->detectionResults = [&](const auto&) { seen.emplace_back("delivered"); };
    send();
    EXPECT_THAT(seen, ElementsAre("logged with status 1", "delivered"));
    SelvioFacialCaptureUxpEventManager::setSharedClock(nullptr);
    SelvioFacialCaptureUxpEventManager::destroySharedInstance();
}

TEST_F(Intake, TheHistoryHoldsFourteenFramesUnlessOneWasSelected) {
    make();
    parameters->setMode(1);
    for (int i = 0; i < 14; ++i) send();
    EXPECT_EQ(analyzer->imagesArray().size(), 14U);
    const auto second = analyzer->imagesArray()[1];
    send();
    EXPECT_EQ(analyzer->imagesArray().size(), 14U);
    EXPECT_EQ(analyzer->imagesArray().front().bitmap, second.bitmap);
    analyzer->selectFrame();
    send();  // the frame that triggers the selection is kept and trimmed as usual
    for (int i = 0; i < 3; ++i) send();
    EXPECT_EQ(analyzer->imagesArray().size(), 17U);
    analyzer->resume();
    send();
    EXPECT_EQ(analyzer->imagesArray().size(), 14U);
}

TEST_F(Intake, ThePixelsAreCopiedOnceAndTheResolutionIsTheFirstFrames) {
    make();
    const auto original = frame();
    analyzer->analyzeSampleBuffer(original);
    settle();
    EXPECT_NE(analyzer->imagesArray().front().bitmap, original->imageBuffer());
    EXPECT_EQ(analyzer->resolution(), (Size{108, 192}));
    analyzer->analyzeSampleBuffer(frame(192, 108));  // the size changes mid-capture
    settle();
    EXPECT_EQ(analyzer->resolution(), (Size{108, 192}));
    EXPECT_EQ(vision->lastWidth(), 192);
}

TEST_F(Intake, AStillImageTakesThePlaceOfTheScreen) {
    make();
    analyzer->pause();
    LogCapture log;
    show({});
    device->setOrientation(DeviceOrientation::LandscapeLeft);
    for (int i = 0; i < 6; ++i) analyzer->analyzeImageAtPath("portrait.jpg");
    EXPECT_EQ(vision->count(), 6);     // it runs although paused ...
    EXPECT_THAT(settle(), IsEmpty());  // ... and its result is dropped
    EXPECT_EQ(vision->lastOrientation(), 5U);
    EXPECT_EQ(analyzer->imagesArray().size(), 5U);
    EXPECT_EQ(analyzer->biggerScreenSide(), 400.0);
    EXPECT_EQ(analyzer->resolution(), (Size{300, 400}));
    analyzer->resume();
    analyzer->analyzeImageAtPath("portrait.jpg");
    EXPECT_THAT(settle(), ElementsAre("results 1"));
    analyzer->analyzeImageAtPath("missing.jpg");
    EXPECT_THAT(settle(), IsEmpty());
    EXPECT_THAT(log.take(), ElementsAre("missing.jpg: no such file"));
}

TEST_F(ManualSelection, TheNextFrameIsDeliveredWithItsRecord) {
    make();
    parameters->setMode(1);
    analyzer->resume();
    show({ScreenFace{.chin = {540, 1300}, .nose = {540, 1000}}});
    EXPECT_THAT(send(), ElementsAre("results 14"));  // a neutral face in manual mode
    analyzer->selectFrame();
    EXPECT_THAT(send(), ElementsAre("success 14 code 1"));
    EXPECT_EQ(success->selectedImage()->bitmap, analyzer->imagesArray().back().bitmap);
    const auto members = record(success);
    EXPECT_EQ(members.at("SelvioResultCode"), "SuccessStillCamera");
    EXPECT_EQ(members.at("Autocapture"), "0");
    EXPECT_EQ(members.at("UXP").back().begin().key(), "ST");
    EXPECT_TRUE(members.contains("Parameters"));
    EXPECT_THAT(success->encodedSelectedImage(), ::testing::Optional(::testing::Not(IsEmpty())));
    EXPECT_THAT(send(), IsEmpty());  // selecting: nothing until resume
    analyzer->resume();
    EXPECT_THAT(send(), ElementsAre("results 14"));
}

TEST_F(ManualSelection, TheStatusesOfTheLastAnalysedFrameAreKept) {
    struct Row {
        const char* version;
        std::vector<ScreenFace> faces;
        void (*first)(AnalyzerFixture&);
        const char* told;
    };
    const auto nothing = [](AnalyzerFixture&) {};
    const auto analyse = [](AnalyzerFixture& t) { t.send(); };
    const auto pause = [](AnalyzerFixture& t) { t.analyzer->pause(); };
    const std::vector<Row> rows = {
        {"13.0", {ScreenFace{.left = {400, 800}, .right = {700, 800}}}, analyse, "success 6 code 1"},
        {"13.0", {}, analyse, "success 1 code 1"},
        {"13.0", {}, nothing, "success 14 code 1"},
        {"13.0", {}, pause, "success 14 code 1"},
        {"11.0", {}, nothing, "success 0 code 1"},
    };
    for (const Row& row : rows) {
        make(row.version);
        parameters->setMode(1);
        show(row.faces);
        row.first(*this);
        calls.clear();
        analyzer->selectFrame();
        EXPECT_THAT(send(), ElementsAre(row.told));
    }
}

TEST_F(ManualSelection, WithoutASuccessHandlerTheFlagStaysSet) {
    delegate->detectionSuccess = nullptr;
    make();
    parameters->setMode(1);
    show({});
    analyzer->selectFrame();
    EXPECT_THAT(send(), ElementsAre("results 1"));
    EXPECT_TRUE(analyzer->shouldSelectCurrentFrame());
    EXPECT_FALSE(analyzer->selectionInProgress());
}

}  // namespace
}  // namespace selvio
