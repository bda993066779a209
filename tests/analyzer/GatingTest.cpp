// What becomes of a frame: statuses, countdown, smile, selection.
#include <sstream>

#include "analyzer/AnalyzerFixture.h"

namespace selvio {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Gating : public AnalyzerFixture {
protected:
    void SetUp() override {
        analyzer->resume();
        show({ScreenFace{}});
    }
    /// Plays steps, one word each, and answers what the delegate was told of each frame ("-": nothing).
    std::string play(const std::string& steps) {
        const auto frameOf = [this](const std::vector<ScreenFace>& faces, bool smiling = false, bool moving = false) {
            show(faces);
            smiles->setSmiling(smiling);
            motion->rotate({0, 0, moving ? 1.0 : 0.0});
            const auto calls = send();
            told_ += told_.empty() ? "" : ", ";
            told_ += calls.empty() ? "-" : "";
            for (const std::string& call : calls) told_ += call;
        };
        const std::map<std::string, std::function<void()>> actions = {
            {"good", [&] { frameOf({ScreenFace{}}); }},
            {"smile", [&] { frameOf({ScreenFace{}}, true); }},
            {"moving", [&] { frameOf({ScreenFace{}}, false, true); }},
            {"far",
             [&] {
                 frameOf({ScreenFace{.left = {350, 700}, .right = {650, 700}}});
             }},
            {"nobody", [&] { frameOf({}); }},
            {"select", [&] { analyzer->selectFrame(); }},
            {"pause", [&] { analyzer->pause(); }},
            {"resume", [&] { analyzer->resume(); }},
            {"manual", [&] { analyzer->updateMode(1); }},
            {"on-smile", [&] { parameters->setSelectOnSmile(true); }},
            {"deaf", [&] { std::swap(delegate->detectionSuccess, aside_); }},
            {"hears", [&] { std::swap(delegate->detectionSuccess, aside_); }},
        };
        std::istringstream words(steps);
        for (std::string word; words >> word;) actions.at(word)();
        return std::exchange(told_, {});
    }

private:
    std::string told_;
    std::function<void(const std::shared_ptr<Results>&)> aside_;
};

TEST_F(Gating, EachStateTakesItsFramesAsTheTableSays) {
    const struct {
        const char* steps;
        const char* told;
    } rows[] = {
        // The countdown ends with a bad frame, with a movement and with a pause.
        {"good far good moving good pause resume good",
         "countdown, results 6, countdown, results 9, countdown, countdown"},
        // Asked for while badly placed, the frame is taken as it is; without a face the request waits; without a
        // handler it stays.
        {"select far", "success 6 code 1"},
        {"select nobody good", "results 1, success 14 code 2"},
        {"deaf select far hears far", "results 6, success 6 code 1"},
        // A smile selects when it comes or goes, not when it is there; a bad frame forgets it.
        {"on-smile good good smile", "results 14, results 14, success 14 code 2"},
        {"on-smile smile smile good", "results 13, results 13, success 14 code 2"},
        {"on-smile smile far good", "results 13, results 6, results 14"},
        {"on-smile select smile", "success 13 code 1"},
        {"on-smile select good", "success 14 code 1"},
        // In manual mode it is only ever asked to stop, and the statuses of the last frame analysed are kept.
        {"manual good select good good resume good", "results 14, success 14 code 1, -, results 14"},
        {"manual good smile good", "results 14, results 13, results 14"},
        {"manual smile smile good", "results 13, results 13, results 14"},
        {"manual far select far", "results 6, success 6 code 1"},
        {"manual nobody select nobody", "results 1, success 1 code 1"},
        {"manual pause select nobody", "success 14 code 1"},
        {"manual deaf select nobody hears nobody", "results 1, success 1 code 1"},
    };
    for (const auto& row : rows) {
        parameters->setMode(2);
        parameters->setSelectOnSmile(false);
        make();
        analyzer->resume();
        EXPECT_EQ(play(row.steps), row.told) << row.steps;
    }
}

TEST_F(Gating, ASteadyFaceGoesThroughTheCountdownToItsSelection) {
    EXPECT_EQ(play("good good good select good"), "countdown, results 10, results 10, success 14 code 2");
    EXPECT_THAT(loggedEvents(), ElementsAre("SA", "FHS", "MT"));  // the selection itself logs no good frame
    EXPECT_EQ(success->selectedImage()->bitmap, analyzer->imagesArray().back().bitmap);
    EXPECT_EQ(play("good resume good"), "-, results 10");  // nothing until resume, which announces no second countdown
}

TEST_F(Gating, WithoutACountdownTheFirstGoodFrameIsSelectedOnce) {
    for (const int time : {0, 1}) {
        parameters->setCountdownTime(time);
        analyzer->resume();
        for (int i = 0; i < 2; ++i) {
            analyzer->analyzeSampleBuffer(frame());
            analysisQueue->runAll();
        }
        EXPECT_THAT(settle(), ElementsAre("success 14 code 2")) << time;
    }
}

TEST_F(Gating, ASmileThatComesSelectsTheOldestFrameAndOneThatGoesTheNewest) {
    play("on-smile good good smile");
    EXPECT_EQ(success->selectedImage()->bitmap, analyzer->imagesArray().front().bitmap);
    EXPECT_THAT(loggedEvents(), ElementsAre("SA", "FS", "MT"));
    play("resume far smile good");
    EXPECT_EQ(success->selectedImage()->bitmap, analyzer->imagesArray().back().bitmap);
}

TEST_F(Gating, ACancelledCaptureIsNoSuccess) {
    play("on-smile smile");
    smiles->setSmiling(false);
    analyzer->analyzeSampleBuffer(frame());
    analysisQueue->runAll();
    globalQueue->runAll();
    analyzer->cancel();  // a frame was selected, and is on its way to the host
    EXPECT_THAT(settle(), ElementsAre("cancelled code 3"));
    EXPECT_FALSE(cancelled->selectedImage().has_value() || cancelled->encodedSelectedImage().has_value());
    EXPECT_EQ(record(cancelled).at("SelvioResultCode"), "Cancelled");
}

TEST_F(Gating, TheResultsCarryTheFaceInScreenPoints) {
    const ScreenFace face;
    play("good");
    const auto contour = analyzer->results()->faceContourPoints().value();
    EXPECT_NEAR(contour[16].x, face.left.x, 1e-9);
    EXPECT_NEAR(contour[0].y, face.right.y, 1e-9);
    EXPECT_NEAR(analyzer->noseMiddle().y, face.nose.y, 1e-9);
    EXPECT_NEAR(analyzer->faceHorizontalFill(), 0.62, 1e-9);
}

TEST_F(Gating, FramesWaitForTheSmileTestAndAreDroppedUntilResumeIfItWasOvertaken) {
    parameters->setSelectOnSmile(true);
    for (int i = 0; i < 2; ++i) {
        analyzer->analyzeSampleBuffer(frame());
        analysisQueue->runAll();
        EXPECT_TRUE(analyzer->smileDetectionInProgress());
    }
    EXPECT_EQ(vision->count(), 1);  // kept, not analysed
    EXPECT_EQ(analyzer->imagesArray().size(), 2U);
    analyzer->pause();
    EXPECT_THAT(settle(), IsEmpty());
    EXPECT_TRUE(analyzer->smileDetectionInProgress());  // deliberately stuck
    EXPECT_EQ(play("good resume good"), "-, results 14");

    for (const int faces : {0, 2}) {
        smiles->setFaces(faces);
        EXPECT_EQ(play("good"), "-");  // not exactly one face: the frame is dropped
        EXPECT_FALSE(analyzer->smileDetectionInProgress());
    }
}

}  // namespace
}  // namespace selvio
