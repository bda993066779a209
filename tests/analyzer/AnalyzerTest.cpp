// Lifecycle and intake.
#include "analyzer/AnalyzerFixture.h"

namespace selvio {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Lifecycle : public AnalyzerFixture {};
class Intake : public AnalyzerFixture {};

TEST_F(Lifecycle, PlatformsOfALowLevelAreManualOnly) {
    for (const auto& [level, manualOnly] : {std::pair(11, true), {12, false}, {0, true}}) {
        parameters->setMode(2);
        calls.clear();
        make(level);
        EXPECT_EQ(analyzer->manualOnly(), manualOnly) << level;
        EXPECT_EQ(parameters->mode(), manualOnly ? 1 : 2) << level;
        EXPECT_EQ(calls.size(), manualOnly ? 1U : 0U) << level;
    }
    EXPECT_EQ(SelvioFacialCaptureAnalyzer::initWithParameters(nullptr), nullptr);
}

TEST_F(Lifecycle, PauseReasonsCrossOverInTheLog) {
    for (const int reason : {0, 1, 2, 3, 4, 5, -1}) analyzer->pauseFor(reason);
    analyzer->pause();
    EXPECT_THAT(loggedEvents(), ElementsAre("IS", "HS", "MF", "RS"));
}

TEST_F(Lifecycle, ResumeClearsTheFlagsLogsTheModeAndStartsTheMotionFeed) {
    analyzer->pause();
    analyzer->selectFrame();
    EXPECT_FALSE(motion->isRunning());
    analyzer->resume();
    EXPECT_TRUE(motion->isRunning());
    EXPECT_EQ(motion->interval(), std::chrono::milliseconds(300));
    EXPECT_FALSE(analyzer->shouldSkipFrames() || analyzer->shouldSelectCurrentFrame());
    parameters->setRoll(700);
    analyzer->updateMode(1);
    analyzer->resume();
    EXPECT_THAT(loggedEvents(), ElementsAre("SA", "SS"));
    EXPECT_EQ(analyzer->obixData()->obixDataDictionary().at("Parameters").at("Roll"), "500");  // the first ones win
    analyzer->pause();
    EXPECT_FALSE(motion->isRunning());
}

TEST_F(Lifecycle, AnyAxisBeyondATenthOfARadianIsMoving) {
    analyzer->resume();
    for (const auto& [rate, moving] : {std::pair(RotationRate{0, -0.11, 0}, true),
                                       {{-0.1, 0.1, -0.1}, false},
                                       {{0, 0, 0.11}, true},
                                       {{0.11, 0, 0}, true}}) {
        motion->rotate(rate);
        EXPECT_EQ(analyzer->shouldHoldStill(), moving);
    }
}

TEST_F(Lifecycle, CancelClosesTheRecordTellsTheHostAtOnceAndSpendsTheAnalyzer) {
    analyzer->resume();
    delegate->detectionCancelled = [&](const auto& results) {
        EXPECT_THAT(loggedEvents(), ElementsAre("SA", "C"));  // the log is still there
        EXPECT_NE(analyzer->parameters(), nullptr);
        EXPECT_EQ(std::exchange(cancelled, results), nullptr);  // told once
    };
    analyzer->cancel();
    ASSERT_NE(cancelled, nullptr);
    EXPECT_EQ(cancelled->resultCode(), SelvioFacialCaptureResultCodeCancelled);
    EXPECT_EQ(record(cancelled).at("SelvioResultCode"), "Cancelled");
    EXPECT_EQ(record(cancelled).at("UXP").size(), 2U);
    EXPECT_FALSE(record(cancelled).contains("Autocapture"));
    EXPECT_EQ(analyzer->parameters(), nullptr);
    EXPECT_EQ(analyzer->results(), nullptr);

    // Spent: nothing happens any more, and the next capture's log stays clean.
    analyzer->resume();
    analyzer->pauseFor(1);
    analyzer->selectFrame();
    analyzer->cancel();
    EXPECT_THAT(send(), IsEmpty());
    EXPECT_FALSE(analyzer->inProgress() || motion->isRunning());
    EXPECT_THAT(loggedEvents(), IsEmpty());
}

TEST_F(Lifecycle, TheHostMayLetGoOfTheAnalyzerWhenItIsCancelled) {
    delegate->detectionCancelled = [&](const auto&) { analyzer.reset(); };
    analyzer->cancel();
    EXPECT_EQ(analyzer, nullptr);
    EXPECT_FALSE(motion->isRunning());
}

TEST_F(Lifecycle, WhatIsQueuedAtStopEndsQuietly) {
    show({ScreenFace{}, ScreenFace{}});
    analyzer->analyzeSampleBuffer(frame());
    analysisQueue->runAll();
    ASSERT_EQ(mainQueue->size(), 1U);
    analyzer->analyzeSampleBuffer(frame());
    analyzer->stop();
    EXPECT_THAT(settle(), IsEmpty());
    EXPECT_THAT(analyzer->imagesArray(), IsEmpty());

    make();
    analyzer->analyzeSampleBuffer(frame());
    analyzer.reset();  // the owner has gone
    EXPECT_THAT(settle(), IsEmpty());
}

TEST_F(Intake, OneFrameIsHeldAndTheOthersAreDropped) {
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
    vision->setRequestError(Error{"blurred"});
    LogSink before = setLogSink([&](std::string_view message) {
        calls.emplace_back(message);
        EXPECT_FALSE(analyzer->inProgress());
        analyzer->analyzeSampleBuffer(frame());  // accepted while this one's result is judged
    });
    analyzer->analyzeSampleBuffer(frame());
    analysisQueue->runNext();
    setLogSink(before);
    // The handler's return must not release the frame that came in meanwhile.
    EXPECT_TRUE(analyzer->inProgress());
    vision->setRequestError(std::nullopt);
    EXPECT_THAT(settle(), ElementsAre("Detect face request error: blurred", "results 1"));  // the newest
}

TEST_F(Intake, EveryWayOutReleasesTheFrame) {
    LogCapture log;
    const struct {
        const char* name;
        std::function<void()> arrange;
        std::shared_ptr<SampleBuffer> frame;
        std::vector<std::string> told;
        std::size_t kept;
    } rows[] = {
        {"analysed", [] {}, frame(), {"results 1"}, 1},
        {"no picture", [] {}, SampleBuffer::makeVideo(nullptr), {}, 0},
        {"audio", [] {}, SampleBuffer::makeAudio({}, {}), {}, 0},
        {"zero-sized",
         [] {},
         SampleBuffer::makeVideo(PixelBuffer::wrap({.width = 0, .height = 0}, {nullptr, nullptr}, {})),
         {},
         0},
        {"paused", [this] { analyzer->pause(); }, frame(), {}, 1},
        {"low level", [this] { make(11); }, frame(), {"manualOnly"}, 1},
        {"stopped while queued", [this] { vision->setDuringRequest([this] { analyzer->stop(); }); }, frame(), {}, 0},
        {"paused during the request",
         [this] { vision->setDuringRequest([this] { analyzer->pause(); }); },
         frame(),
         {},
         1},
        {"handler error", [this] { vision->setHandlerError(Error{"no model"}); }, frame(), {}, 1},
    };
    for (const auto& row : rows) {
        parameters->setMode(2);
        make();
        row.arrange();
        analyzer->analyzeSampleBuffer(row.frame);
        EXPECT_TRUE(analyzer->inProgress()) << row.name;
        EXPECT_EQ(settle(), row.told) << row.name;
        EXPECT_FALSE(analyzer->inProgress()) << row.name;
        EXPECT_EQ(analyzer->imagesArray().size(), row.kept) << row.name;
    }
    EXPECT_THAT(log.take(), ElementsAre("RBGBuffereCopyWithPixelBuffer :: failed",
                                        "SequenceRequestHandler couldn't perform requests: no model"));
}

TEST_F(Intake, NoFaceAndSeveralFacesAreSaidAndLogged) {
    show({});
    EXPECT_THAT(send(), ElementsAre("results 1"));
    show({ScreenFace{}, ScreenFace{}, ScreenFace{}});
    EXPECT_THAT(send(), ElementsAre("results 2"));
    EXPECT_THAT(loggedEvents(), ElementsAre("FENF", "FEMF"));
    EXPECT_EQ(vision->lastRevision(), 3);
    EXPECT_EQ(vision->lastOrientation(), 5U);
    make(12);
    device->setOrientation(DeviceOrientation::LandscapeLeft);
    send();
    EXPECT_EQ(vision->lastOrientation(), 4U);
    EXPECT_EQ(vision->lastRevision(), 2);
}

// Reads the time when an event is logged: what it sees then is what came before.
struct WitnessClock final : Clock {
    [[nodiscard]] double secondsSinceReferenceDate() const override {
        if (witness) witness();
        return 0;
    }
    [[nodiscard]] std::chrono::nanoseconds monotonicTime() const override { return {}; }
    std::function<void()> witness;
};

TEST_F(Intake, StatusesAreStoredThenLoggedThenDelivered) {
    show({});
    const auto clock = std::make_shared<WitnessClock>();
    SelvioFacialCaptureUxpEventManager::setSharedClock(clock);
    (void)SelvioFacialCaptureUxpEventManager::sharedInstance();
    clock->witness = [this] {
        calls.push_back("logged with status " + std::to_string(analyzer->results()->highestPriorityStatus()));
    };
    EXPECT_THAT(send(), ElementsAre("logged with status 1", "results 1"));
    SelvioFacialCaptureUxpEventManager::setSharedClock(nullptr);
    SelvioFacialCaptureUxpEventManager::destroySharedInstance();
}

TEST_F(Intake, TheHistoryHoldsFourteenFramesUnlessOneWasSelected) {
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

TEST_F(Intake, TheResolutionIsTheFirstFramesThoughTheSizeChanges) {
    for (const int width : {100, 170}) {
        analyzer->analyzeSampleBuffer(frame(width, 270 - width));
        settle();
        EXPECT_EQ(analyzer->resolution(), (Size{100, 170}));
        EXPECT_EQ(vision->lastPicture()->width(), width);
    }
}

TEST_F(Intake, AStillImageTakesThePlaceOfTheScreen) {
    LogCapture log;
    analyzer->pause();
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
    analyzer->analyzeImageAtPath("missing.jpg");
    EXPECT_THAT(settle(), ElementsAre("results 1"));
    EXPECT_THAT(log.take(), ElementsAre("missing.jpg: no such file"));
}

}  // namespace
}  // namespace selvio
