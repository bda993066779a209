// What a person wants to read of a capture, and what the model of it leaves out.
#include <sstream>

#include "analyzer/AnalyzerFixture.h"

namespace selvio {
namespace {

using Results = SelvioFacialCaptureResults;

class Analyzer : public ::testing::Test, public ManualAnalyzer {
protected:
    Analyzer() {
        const auto text = [](const Results& results) {
            std::string list;
            const auto statuses = results.orderedStatuses().value();
            for (const auto status : statuses) list += " " + std::to_string(status);
            return list;
        };
        delegate->detectionResults = [=, this](const auto& results) { tell("results" + text(*results)); };
        delegate->startCountdown = [this] { tell("countdown"); };
        delegate->detectionSuccess = [=, this](const auto& results) {
            tell("success" + text(*results) + " code " + std::to_string(results->resultCode()));
        };
        delegate->manualOnly = [this] { tell("manualOnly"); };
    }
    void begin() {
        makeAnalyzer();
        analyzer->setDelegate(delegate);
        analyzer->resume();
    }
    void tell(const std::string& call) { told_ += (told_.empty() ? "" : ", ") + call; }
    void settle() {
        while (analysisQueue->runNext() || globalQueue->runNext() || mainQueue->runNext()) {
        }
    }
    /// Plays steps, one word each, and answers what the delegate was told ("-" of a frame: nothing).
    std::string play(const std::string& steps) {
        const auto frameOf = [this](std::vector<ScreenFace> faces, bool smiling = false, bool moving = false) {
            std::vector<FaceObservation> observations;
            for (const ScreenFace& face : faces) observations.push_back(face.observation());
            vision->setObservations(observations);
            smiles->setSmiling(smiling);
            motion->rotate({0, 0, moving ? 1.0 : 0.0});
            const auto before = told_.size();
            analyzer->analyzeSampleBuffer(blankFrame());
            settle();
            if (told_.size() == before) tell("-");
        };
        const ScreenFace good, far{.left = {350, 700}, .right = {650, 700}};
        const std::map<std::string, std::function<void()>> actions = {
            {"good", [&] { frameOf({good}); }},
            {"smile", [&] { frameOf({good}, true); }},
            {"moving", [&] { frameOf({good}, false, true); }},
            {"far", [&] { frameOf({far}); }},
            {"nobody", [&] { frameOf({}); }},
            {"two",
             [&] {
                 frameOf({good, far});
             }},
            {"select", [&] { analyzer->selectFrame(); }},
            {"pause", [&] { analyzer->pause(); }},
            {"resume", [&] { analyzer->resume(); }},
            {"manual", [&] { analyzer->updateMode(1); }},
            {"on-smile", [&] { parameters->setSelectOnSmile(true); }},
            {"deaf", [&] { std::swap(delegate->detectionSuccess, aside_); }},
        };
        std::istringstream words(steps);
        for (std::string word; words >> word;) actions.at(word)();
        return std::exchange(told_, {});
    }

    const std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate> delegate =
        std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();

private:
    std::string told_;
    std::function<void(const std::shared_ptr<Results>&)> aside_;
};

TEST_F(Analyzer, LeadsThroughACapture) {
    const struct {
        const char* steps;
        const char* told;
    } rows[] = {
        {"good good good select good good", "countdown, results 10, results 10, success 14 code 2, -"},
        // The countdown ends with a bad frame, with nobody or a second face, with a movement and with a pause.
        {"good far good nobody good two good moving good pause resume good",
         "countdown, results 6, countdown, results 1, countdown, results 2, countdown, results 9, countdown, "
         "countdown"},
        // Asked for while badly placed, the frame is taken as it is; without a face the request waits; without a
        // handler it stays.
        {"select far", "success 6 code 1"},
        {"select nobody good", "results 1, success 14 code 2"},
        {"deaf select far deaf far", "results 6, success 6 code 1"},
        // A smile selects when it comes or goes, not when it is there; a bad frame forgets it.
        {"on-smile good good smile", "results 14, results 14, success 14 code 2"},
        {"on-smile smile smile good", "results 13, results 13, success 14 code 2"},
        {"on-smile smile nobody good", "results 13, results 1, results 14"},
        // In manual mode it is only ever asked to stop, and the statuses of the last frame analysed are kept.
        {"manual smile good select good good resume good", "results 13, results 14, success 14 code 1, -, results 14"},
        {"manual nobody select good", "results 1, success 1 code 1"},
    };
    for (const auto& row : rows) {
        parameters->setMode(2);
        parameters->setSelectOnSmile(false);
        begin();
        EXPECT_EQ(play(row.steps), row.told) << row.steps;
    }
}

TEST_F(Analyzer, EndsQuietlyWhenTheHostLetsGoOfIt) {
    begin();
    analyzer->analyzeSampleBuffer(blankFrame());
    analyzer.reset();
    settle();
    EXPECT_FALSE(motion->isRunning());

    begin();
    delegate->detectionCancelled = [&](const auto&) { analyzer.reset(); };
    analyzer->cancel();
    EXPECT_EQ(analyzer, nullptr);
    EXPECT_FALSE(motion->isRunning());
    EXPECT_EQ(play(""), "");

    begin();
    const auto held = std::exchange(analyzer, nullptr);
    held->setDelegate(std::make_shared<SelvioFacialCaptureAnalyzerDelegate>());  // one that the host does not keep
    EXPECT_EQ(held->delegate(), nullptr);
}

TEST_F(Analyzer, DropsWhatIsNoPicture) {
    LogCapture log;
    begin();
    analyzer->analyzeSampleBuffer(nullptr);
    EXPECT_FALSE(analyzer->inProgress());
    for (const auto& frame :
         {SampleBuffer::makeAudio({}, {}),
          SampleBuffer::makeVideo(PixelBuffer::wrap({.width = 0, .height = 0}, {nullptr, nullptr}, {}))}) {
        analyzer->analyzeSampleBuffer(frame);
        EXPECT_TRUE(analyzer->inProgress());
        settle();
        EXPECT_FALSE(analyzer->inProgress());
        EXPECT_TRUE(analyzer->imagesArray().empty());
    }
    EXPECT_THAT(log.take(), ::testing::ElementsAre("RBGBuffereCopyWithPixelBuffer :: failed"));
}

TEST_F(Analyzer, IsNotMadeWithoutParametersOrQueues) {
    LogCapture log;
    const Platform complete = platform();
    EXPECT_EQ(SelvioFacialCaptureAnalyzer::initWithParameters(nullptr, complete), nullptr);
    for (const auto remove :
         {+[](Platform& p) { p.mainQueue = nullptr; }, +[](Platform& p) { p.globalQueue = nullptr; },
          +[](Platform& p) { p.makeSerialQueue = nullptr; },
          +[](Platform& p) { p.makeSerialQueue = [](const auto&) { return nullptr; }; }}) {
        Platform lacking = complete;
        remove(lacking);
        EXPECT_EQ(SelvioFacialCaptureAnalyzer::initWithParameters(parameters, lacking), nullptr);
    }
    EXPECT_EQ(log.take().size(), 5U);

    // Without the other ports it only keeps frames.
    Platform bare;
    bare.mainQueue = mainQueue;
    bare.globalQueue = globalQueue;
    bare.makeSerialQueue = [this](const auto& label) { return analysisQueue = std::make_shared<ManualQueue>(label); };
    analyzer = SelvioFacialCaptureAnalyzer::initWithParameters(parameters, bare);
    analyzer->resume();
    analyzer->analyzeImageAtPath("still.jpg");
    analyzer->analyzeSampleBuffer(blankFrame());
    settle();
    EXPECT_EQ(analyzer->imagesArray().size(), 1U);
    EXPECT_EQ(analyzer->exifOrientationForCurrentDeviceOrientation(), 5U);
    analyzer->cancel();
}

TEST_F(Analyzer, ShowsWhatItWasMadeOf) {
    begin();
    EXPECT_EQ(motion->interval(), std::chrono::milliseconds(300));
    EXPECT_EQ(analyzer->statusbarOrientation(), InterfaceOrientation::Portrait);
    EXPECT_TRUE(analyzer->isDepthDetected());
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
