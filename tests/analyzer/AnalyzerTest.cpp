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
    for (const auto remove :
         {+[](Platform& p) { p.mainQueue = nullptr; }, +[](Platform& p) { p.globalQueue = nullptr; },
          +[](Platform& p) { p.makeSerialQueue = nullptr; },
          +[](Platform& p) { p.makeSerialQueue = [](const auto&) { return nullptr; }; }}) {
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
    std::string missing;
    for (const auto& line : log.take()) missing += line.substr(0, line.find(':')) + ' ';
    for (const char* port : {"screen", "makeSequenceRequestHandler", "makeFaceDetector", "imageCodec", "device",
                             "makeMotionManager", "imageLoader"})
        EXPECT_THAT(missing, ::testing::HasSubstr(std::string("The platform has no ") + port + ' '));
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

TEST_F(Analyzer, ShowsWhatItWasMadeOf) {
    EXPECT_EQ(motion->interval, std::chrono::milliseconds(300));
    analyzer->pause();
    EXPECT_TRUE(analyzer->shouldSkipFrames());
    EXPECT_EQ(analyzer->statusbarOrientation(), InterfaceOrientation::Portrait);
    EXPECT_TRUE(analyzer->isDepthDetected());
    analyzer->analyzeSampleBuffer(nullptr);
    EXPECT_FALSE(analyzer->inProgress());
    EXPECT_EQ(analyzer->delegate(), delegate);
    const auto record = analyzer->obixData();
    analyzer->setObixData(nullptr);
    EXPECT_EQ(analyzer->obixData(), record);
    const auto other = SelvioFacialCaptureObixData::init(platform());
    analyzer->setObixData(other);
    EXPECT_EQ(analyzer->obixData(), other);
    analyzer->setResolution({10, 20});
    EXPECT_EQ(analyzer->biggerPreviewSide(), 20);
    device->setOrientation(DeviceOrientation::LandscapeLeft);
    EXPECT_EQ(analyzer->exifOrientationForCurrentDeviceOrientation(), 4U);
    EXPECT_EQ(analyzer->exifOrientationForDeviceOrientation(DeviceOrientation::PortraitUpsideDown), 7U);
    EXPECT_EQ(analyzer->cgOrientationFrom(ImageOrientation::Left), 8U);
}

}  // namespace
}  // namespace selvio
