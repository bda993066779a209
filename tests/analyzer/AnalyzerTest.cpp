// What the model of a capture leaves out.
#include "analyzer/AnalyzerFixture.h"

namespace selvio {
namespace {

class Analyzer : public ::testing::Test, public ManualAnalyzer {
protected:
    Analyzer() {
        makeAnalyzer(platform());
        analyzer->setDelegate(delegate);
        analyzer->resume();
    }
    const std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate> delegate =
        std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
};

TEST_F(Analyzer, NeitherKeepsItsHostNorItselfAlive) {
    delegate->detectionCancelled = [&](const auto&) { analyzer.reset(); };
    analyzer->cancel();
    EXPECT_EQ(analyzer, nullptr);
    EXPECT_FALSE(motion->isRunning());

    makeAnalyzer(platform());
    analyzer->setDelegate(std::make_shared<SelvioFacialCaptureAnalyzerDelegate>());  // one that the host does not keep
    EXPECT_EQ(analyzer->delegate(), nullptr);
}

TEST_F(Analyzer, IsNotMadeWithoutParametersOrQueues) {
    LogCapture log;
    EXPECT_EQ(SelvioFacialCaptureAnalyzer::initWithParameters(nullptr, platform()), nullptr);
    const std::function<void(Platform&)> removals[] = {
        [](Platform& p) { p.mainQueue = nullptr; }, [](Platform& p) { p.globalQueue = nullptr; },
        [](Platform& p) { p.makeSerialQueue = nullptr; },
        [](Platform& p) { p.makeSerialQueue = [](const auto&) { return nullptr; }; }};
    for (const auto& remove : removals) {
        Platform lacking = platform();
        remove(lacking);
        EXPECT_EQ(SelvioFacialCaptureAnalyzer::initWithParameters(parameters, lacking), nullptr);
    }
    EXPECT_EQ(log.take().size(), 5U);

    // Without the other ports it only keeps frames, and says so.
    Platform bare;
    bare.mainQueue = mainQueue;
    bare.globalQueue = globalQueue;
    bare.makeSerialQueue = platform().makeSerialQueue;
    makeAnalyzer(bare);
    EXPECT_EQ(log.take().size(), 8U);
    analyzer->resume();
    analyzer->analyzeImageAtPath("still.jpg");
    analyzer->analyzeSampleBuffer(blankFrame());
    analysisQueue->runAll();
    EXPECT_EQ(analyzer->imagesArray().size(), 1U);
    EXPECT_EQ(analyzer->exifOrientationForCurrentDeviceOrientation(), 5U);
    analyzer->cancel();
}

TEST_F(Analyzer, SaysWhenCapturesMeetInTheEventLog) {
    LogCapture log;
    const auto first = analyzer;
    makeAnalyzer(platform());
    for (int i = 0; i < 2; ++i) analyzer->resume();
    EXPECT_THAT(log.take(), ::testing::ElementsAre(::testing::HasSubstr("begins before another one was stopped")));
    first->stop();
    EXPECT_THAT(log.take(), ::testing::ElementsAre(::testing::HasSubstr("which has lost its events")));
    analyzer.reset();
    EXPECT_THAT(log.take(), ::testing::ElementsAre(::testing::HasSubstr("let go of without stop")));
    makeAnalyzer(platform());
    analyzer->resume();
    analyzer->cancel();
    analyzer.reset();
    makeAnalyzer(platform());
    analyzer->stop();
    EXPECT_THAT(log.take(), ::testing::IsEmpty()) << "one after another is as it should be";
}

TEST_F(Analyzer, TakesNeitherAFrameNorARecordThatIsNotThere) {
    analyzer->analyzeSampleBuffer(nullptr);
    EXPECT_FALSE(analyzer->inProgress());
    const auto other = SelvioFacialCaptureObixData::init(platform());
    for (const auto& record : {other, std::shared_ptr<SelvioFacialCaptureObixData>()}) analyzer->setObixData(record);
    EXPECT_EQ(analyzer->obixData(), other);
    EXPECT_EQ(motion->interval, std::chrono::milliseconds(300));
    EXPECT_EQ(analyzer->exifOrientationForDeviceOrientation(DeviceOrientation::PortraitUpsideDown), 7U);
    EXPECT_EQ(analyzer->cgOrientationFrom(ImageOrientation::Left), 8U);
}

}  // namespace
}  // namespace selvio
