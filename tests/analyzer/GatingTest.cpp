// Automatic capture: statuses, countdown, smile, selection.
#include "analyzer/AnalyzerFixture.h"

namespace selvio {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Automatic : public AnalyzerFixture {
protected:
    void SetUp() override {
        make();
        analyzer->resume();
        show({ScreenFace{}});
    }
    void showTooFar() { show({ScreenFace{.left = {400, 800}, .right = {700, 800}}}); }
};

TEST_F(Automatic, ASteadyFaceGoesThroughTheCountdownToItsSelection) {
    EXPECT_THAT(send(), ElementsAre("countdown"));
    EXPECT_THAT(send(), ElementsAre("results 10"));
    EXPECT_THAT(send(), ElementsAre("results 10"));
    analyzer->selectFrame();
    EXPECT_THAT(send(), ElementsAre("success 14 code 2"));
    const auto members = record(success);
    EXPECT_EQ(members.at("Autocapture"), "1");
    EXPECT_EQ(members.at("SelvioResultCode"), "SuccessVideo");
    EXPECT_THAT(loggedEvents(), ElementsAre("SA", "FHS", "MT"));  // the selection itself logs no good frame
    EXPECT_EQ(success->selectedImage()->bitmap, analyzer->imagesArray().back().bitmap);
    EXPECT_THAT(send(), IsEmpty());
}

TEST_F(Automatic, ABadFrameEndsTheCountdown) {
    EXPECT_THAT(send(), ElementsAre("countdown"));
    showTooFar();
    EXPECT_THAT(send(), ElementsAre("results 6"));
    show({ScreenFace{}});
    EXPECT_THAT(send(), ElementsAre("countdown"));
    motion->rotate({0, 0, 1});
    EXPECT_THAT(send(), ElementsAre("results 9"));
    motion->rotate({0, 0, 0});
    EXPECT_THAT(send(), ElementsAre("countdown"));
    analyzer->pause();
    analyzer->resume();
    EXPECT_THAT(send(), ElementsAre("countdown"));
}

TEST_F(Automatic, WithoutACountdownTheFirstGoodFrameIsSelected) {
    for (const int time : {0, 1}) {
        parameters->setCountdownTime(time);
        analyzer->resume();
        EXPECT_THAT(send(), ElementsAre("success 14 code 2")) << time;
    }
}

TEST_F(Automatic, TwoGoodFramesBeforeTheMainQueueRunsMakeOneSelection) {
    parameters->setCountdownTime(0);
    for (int i = 0; i < 2; ++i) {
        analyzer->analyzeSampleBuffer(frame());
        analysisQueue->runAll();
    }
    EXPECT_THAT(settle(), ElementsAre("success 14 code 2"));
}

TEST_F(Automatic, AskedForWhileBadlyPlacedTheFrameIsTakenAsItIs) {
    showTooFar();
    analyzer->selectFrame();
    EXPECT_THAT(send(), ElementsAre("success 6 code 1"));
    EXPECT_EQ(record(success).at("SelvioResultCode"), "SuccessStillCamera");
    EXPECT_EQ(record(success).at("Autocapture"), "1");

    delegate->detectionSuccess = nullptr;
    analyzer->resume();
    analyzer->selectFrame();
    EXPECT_THAT(send(), ElementsAre("results 6"));
    EXPECT_TRUE(analyzer->shouldSelectCurrentFrame());
}

TEST_F(Automatic, WithoutAFaceTheRequestWaitsForTheNextJudgedFrame) {
    show({});
    analyzer->selectFrame();
    EXPECT_THAT(send(), ElementsAre("results 1"));
    show({ScreenFace{}});
    EXPECT_THAT(send(), ElementsAre("success 14 code 2"));
}

TEST_F(Automatic, TheResultsCarryTheFaceInScreenPoints) {
    ScreenFace face;
    show({face});
    send();
    const auto results = analyzer->results();
    const auto contour = results->faceContourPoints().value();
    EXPECT_NEAR(contour[16].x, face.left.x, 1e-9);
    EXPECT_NEAR(contour[0].y, face.right.y, 1e-9);
    EXPECT_NEAR(analyzer->noseMiddle().y, face.nose.y, 1e-9);
    EXPECT_NEAR(analyzer->faceHorizontalFill(), 680.0 / 1080.0, 1e-9);
    EXPECT_EQ(results->noseCrestPoints(), std::nullopt);
    vision->setObservations(std::vector<FaceObservation>{FaceObservation{.boundingBox = {0, 0, 1, 1}, .landmarks = std::nullopt}});
    send();
    EXPECT_EQ(analyzer->results()->faceContourPoints(), std::nullopt);
}

TEST_F(Automatic, ASmileThatComesSelectsTheOldestFrame) {
    parameters->setSelectOnSmile(true);
    EXPECT_THAT(send(), ElementsAre("results 14"));
    EXPECT_THAT(send(), ElementsAre("results 14"));
    EXPECT_EQ(analyzer->smileStatus(), 2);
    smiles->setSmiling(true);
    const auto oldest = analyzer->imagesArray().front();
    EXPECT_THAT(send(), ElementsAre("success 14 code 2"));
    EXPECT_EQ(success->selectedImage()->bitmap, oldest.bitmap);
    EXPECT_THAT(loggedEvents(), ElementsAre("SA", "FS", "MT"));
}

TEST_F(Automatic, ASmileThatGoesSelectsTheNewestFrame) {
    parameters->setSelectOnSmile(true);
    smiles->setSmiling(true);
    EXPECT_THAT(send(), ElementsAre("results 13"));
    EXPECT_EQ(analyzer->smileStatus(), 1);
    smiles->setSmiling(false);
    EXPECT_THAT(send(), ElementsAre("success 14 code 2"));
    EXPECT_EQ(success->selectedImage()->bitmap, analyzer->imagesArray().back().bitmap);

    analyzer->resume();
    smiles->setSmiling(true);
    send();
    showTooFar();
    send();
    EXPECT_EQ(analyzer->smileStatus(), 0);  // a bad frame forgets the smile
}

TEST_F(Automatic, InManualModeASmileIsOnlyEverAskedToStop) {
    analyzer->updateMode(1);
    for (const bool beginsSmiling : {false, true}) {
        showTooFar();
        send();  // a bad frame: the run begins anew
        show({ScreenFace{}});
        for (const bool smiling : {beginsSmiling, true, false}) {
            smiles->setSmiling(smiling);
            EXPECT_THAT(send(), ElementsAre(smiling ? "results 13" : "results 14"));
        }
    }
    EXPECT_EQ(success, nullptr);
}

TEST_F(Automatic, FramesWaitForTheSmileTestAndAreDroppedUntilResumeIfItWasOvertaken) {
    parameters->setSelectOnSmile(true);
    analyzer->analyzeSampleBuffer(frame());
    analysisQueue->runAll();
    EXPECT_TRUE(analyzer->smileDetectionInProgress());
    analyzer->analyzeSampleBuffer(frame());
    analysisQueue->runAll();
    EXPECT_EQ(vision->count(), 1);  // kept, not analysed
    EXPECT_EQ(analyzer->imagesArray().size(), 2U);
    analyzer->pause();
    EXPECT_THAT(settle(), IsEmpty());
    EXPECT_TRUE(analyzer->smileDetectionInProgress());  // deliberately stuck
    EXPECT_THAT(send(), IsEmpty());
    analyzer->resume();
    EXPECT_THAT(send(), ElementsAre("results 14"));

    for (const int faces : {0, 2}) {
        smiles->setFaces(faces);
        EXPECT_THAT(send(), IsEmpty());  // not exactly one face: the frame is dropped
        EXPECT_FALSE(analyzer->smileDetectionInProgress());
    }
}

TEST_F(Automatic, AskedForDuringTheSmileTestTheFrameIsTakenWithItsStatus) {
    parameters->setSelectOnSmile(true);
    for (const bool smiling : {false, true}) {
        analyzer->pause();
        analyzer->resume();
        smiles->setSmiling(smiling);
        motion->rotate({1, 0, 0});
        send();  // a bad frame: the run begins anew
        motion->rotate({0, 0, 0});
        analyzer->selectFrame();
        EXPECT_THAT(send(), ElementsAre(smiling ? "success 13 code 1" : "success 14 code 1"));
    }
}

}  // namespace
}  // namespace selvio
