// The analyzer and the model of a capture side by side through hundreds of random captures.
#include "analyzer/CaptureModel.h"

#include <random>

namespace selvio {
namespace {

using namespace reference;

/// The analyzer, driven like the model.
class RealCapture : public DrivenCapture {
public:
    explicit RealCapture(int serviceLevel = 13, Size screenSize = {1000, 1700}) {
        screen = screenSize;
        SelvioFacialCaptureUxpEventManager::setSharedClock(clock());
        SelvioFacialCaptureUxpEventManager::destroySharedInstance();
        (void)SelvioFacialCaptureUxpEventManager::sharedInstance();
        Platform ports = platform();
        ports.serviceLevel = serviceLevel;
        makeAnalyzer(ports);
        vision->setAnswer([this](const FaceLandmarksRequest& asked) -> Expected<FaceLandmarksResult> {
            insist("request", markOf(asked.pixelBuffer), asked.exifOrientation, asked.revision);
            if (handlerError) return *handlerError;
            return FaceLandmarksResult{faces, requestError};
        });
        smiles->setAnswer([this](const Image& image) {
            insist("smile test", markOf(image.bitmap));
            return FakeFaceDetector::Answer{smilingFaces + otherFaces, smilingFaces > 0};
        });
        sink_ = setLogSink([this](std::string_view line) { say(std::string(line)); });
    }
    ~RealCapture() {
        setLogSink(sink_);
        SelvioFacialCaptureUxpEventManager::setSharedClock(nullptr);
        SelvioFacialCaptureUxpEventManager::destroySharedInstance();
    }

    void setDelegate(const std::optional<Methods>& methods) {
        const auto told = methods ? std::make_shared<SelvioFacialCaptureAnalyzerDelegate>() : nullptr;
        for (const std::string& method : methods.value_or(Methods())) {
            const auto call = [this, method](const Results& results) { hear(method, results); };
            if (method == "results") told->detectionResults = call;
            if (method == "countdown") told->startCountdown = [call] { call(nullptr); };
            if (method == "success") told->detectionSuccess = call;
            if (method == "cancelled") told->detectionCancelled = call;
            if (method == "manualOnly") told->manualOnly = [call] { call(nullptr); };
        }
        delegates_.push_back(told);
        analyzer->setDelegate(told);
    }
    SelvioFacialCaptureAnalyzer* operator->() { return analyzer.get(); }
    void rotate(RotationRate rate) { motion->rotate(rate); }
    void analyzeSampleBuffer(const Frame& frame) {
        const auto picture = frame.picture == Frame::Unreadable ? PixelBuffer::wrap({.width = 0, .height = 0}, {}, {})
                             : frame.picture == Frame::Readable ? pictureOf(frame)
                                                                : nullptr;
        analyzer->analyzeSampleBuffer(SampleBuffer::makeVideo(picture));
    }
    void analyzeImageAtPath(const std::optional<Frame>& picture) {
        if (picture) loader->picture = pictureOf(*picture);
        analyzer->analyzeImageAtPath(picture ? "still.jpg" : "missing.jpg");
    }

private:
    std::vector<std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate>> delegates_;
    LogSink sink_;
};

const Methods kAllMethods{"results", "countdown", "success", "cancelled", "manualOnly"};

/// One random capture.
class Scenario {
public:
    explicit Scenario(unsigned seed)
        : random_(seed),
          level_(oneIn(10) ? 10 + below(3) : 13),
          screen_(oneIn(5) ? Size{375, 812} : Size{1000, 1700}),
          real_(level_, screen_),
          model_(level_, screen_),
          frameSize_(oneIn(10)   ? Size{9, 16}
                     : oneIn(10) ? Size{18, 10}
                                 : Size{10, 17}) {
        play({"a delegate", [](auto& c) { c.setDelegate(kAllMethods); }});
        for (const int which : {0, 1, 2})
            if (oneIn(2)) play(parameter(which));
        int afterEnd = 5;
        for (int i = 0; i < 60 && afterEnd > 0 && !::testing::Test::HasFailure(); ++i) {
            play(anyStep());
            if (model_.spent) --afterEnd;
        }
        for (std::size_t i = 0; i < real_.given.size(); ++i) {
            const auto& [object, contents] = real_.given[i];
            same("given to a delegate", contentsOf(*object), contents);
            sameObject(object, model_.given.at(i).first);
        }
        real_.during.clear();
        real_.analyzer.reset();
        real_.settle();
        same("told after the host has let go, motion feed", std::pair(real_.calls.size(), real_.motion->isRunning()),
             std::pair(std::size_t{0}, false));
    }

private:
    /// What is done with both.
    struct Step {
        template <typename Action>
        Step(std::string text, Action action) : text(std::move(text)), real(action), model(action) {}
        std::string text;
        std::function<void(RealCapture&)> real;
        std::function<void(CaptureModel&)> model;
    };
    void play(const Step& step) {
        steps_ += "\n    " + step.text;
        step.real(real_);
        step.model(model_);
        compare();
    }
    template <typename T>
    void same(const char* what, const T& is, const T& right) {
        if (!(is == right))
            ADD_FAILURE() << what << "\n  is:        " << ::testing::PrintToString(is)
                          << "\n  should be: " << ::testing::PrintToString(right) << "\n  after: " << steps_;
    }
    void sameObject(const Results& is, const Results& right) {
        same("object", modelOf_.try_emplace(is, right).first->second == right, true);
    }
    void compare() {
        const auto& a = *real_.analyzer;
        const auto& m = model_;
        same("delegate calls", std::exchange(real_.calls, {}), std::exchange(model_.calls, {}));
        same("asked of the ports, logged", std::exchange(real_.asked, {}), std::exchange(model_.asked, {}));
        std::deque<Mark> marks;
        for (const Image& image : a.imagesArray()) marks.push_back(markOf(image.bitmap));
        same("blocks on the three queues, history, mode, events, in progress, motion feed",
             std::tuple(real_.blocks(), marks, real_.parameters->mode(),
                        SelvioFacialCaptureUxpEventManager::sharedInstance()->events(), a.inProgress(),
                        real_.motion->isRunning()),
             std::tuple(m.blocks(), m.history, m.parameters->mode(), m.log->events(), m.inProgress, m.motionRuns));
        if (m.spent) return same("spent", a.results() == nullptr && a.parameters() == nullptr, true);
        same("selection, smile test, skip, select, manual only, hold still, start countdown, smile status, orientation",
             std::tuple(a.selectionInProgress(), a.smileDetectionInProgress(), a.shouldSkipFrames(),
                        a.shouldSelectCurrentFrame(), a.manualOnly(), a.shouldHoldStill(), a.shouldStartCountdown(),
                        a.smileStatus(), a.exifOrientation()),
             std::tuple(m.selection, m.smileTest, m.skip, m.select, m.manualOnly, m.holdStill, m.startCountdown,
                        m.smileStatus, m.exif));
        const auto& g = m.geometry;
        same("geometry, face",
             std::tuple(a.resolution(), a.biggerScreenSide(), a.smallerScreenSide(), a.biggerPreviewSide(),
                        a.smallerPreviewSide(), a.wAdjuster(), a.hAdjuster(), a.xAdjuster(), a.yAdjuster(),
                        a.faceHorizontalFill(), a.noseMiddle(), a.lipLeft(), a.lipRight()),
             std::tuple(g.resolution, g.biggerScreenSide, g.smallerScreenSide, g.biggerPreviewSide,
                        g.smallerPreviewSide, g.wAdjuster, g.hAdjuster, g.xAdjuster, g.yAdjuster,
                        m.face.measures.horizontalFill, m.face.noseMiddle, m.face.lipLeft, m.face.lipRight));
        same("results()", contentsOf(*a.results()), contentsOf(*m.results));
        sameObject(a.results(), m.results);
    }

    // The steps of a capture.

    int below(int n) { return std::uniform_int_distribution(0, n - 1)(random_); }
    bool oneIn(int n) { return below(n) == 0; }

    Step anyStep() {
        const int n = below(100);
        if (n < 26) return frame();
        if (n < 43) return {"analysis", [](auto& c) { c.analysisQueue->runNext(); }};
        if (n < 49) return {"global", [](auto& c) { c.globalQueue->runNext(); }};
        if (n < 57) return {"main", [](auto& c) { c.mainQueue->runNext(); }};
        if (n < 69) return {"settle", [](auto& c) { c.settle(); }};
        if (n < 73) return still();
        if (n < 80) return armed();
        if (n < 84) return world();
        return control();
    }
    Step control() {
        const int n = below(32), reason = oneIn(3) ? 0 : below(7) - 1;
        if (n < 8) return {"resume", [](auto& c) { c->resume(); }};
        if (n < 14) return {"selectFrame", [](auto& c) { c->selectFrame(); }};
        if (n == 14) return {"stop", [](auto& c) { c->stop(); }};
        if (n == 15) return {"cancel", [](auto& c) { c->cancel(); }};
        if (n < 20) {
            std::optional<Methods> methods = kAllMethods;
            if (oneIn(3)) std::erase_if(*methods, [this](const auto&) { return oneIn(2); });
            if (oneIn(8)) methods.reset();
            return {"delegate for " + ::testing::PrintToString(methods), [=](auto& c) { c.setDelegate(methods); }};
        }
        if (n < 24) return {"pauseFor " + std::to_string(reason), [=](auto& c) { c->pauseFor(reason); }};
        if (n < 26) {
            const double rates[] = {0, 0, 0, 0.1, -0.1, 0.11, -0.11};
            const RotationRate rate{rates[below(7)], rates[below(7)], rates[below(7)]};
            return {"motion", [=](auto& c) { c.rotate(rate); }};
        }
        return parameter(below(4));
    }
    Step parameter(int which) {
        const int value = below(4), fill = below(150);
        const std::string text = std::to_string(value);
        if (which == 0) return {"updateMode " + text, [=](auto& c) { c->updateMode(value); }};
        if (which == 1) return {"countdown " + text, [=](auto& c) { c.parameters->setCountdownTime(value); }};
        if (which == 2) return {"on smile " + text, [=](auto& c) { c.parameters->setSelectOnSmile(value > 1); }};
        return {"limits", [=](auto& c) {
                    c.parameters->setRoll(fill * 6);
                    c.parameters->setMinFill(500 + fill);
                    c.parameters->setMaxFill(650 + fill);
                    c.parameters->setImageQuality(fill);
                }};
    }
    Step world() {
        const auto error = [this](const char* text) { return oneIn(6) ? std::optional(Error{text}) : std::nullopt; };
        const auto requestError = error("blurred"), handlerError = error("no model");
        const int orientation = below(8) - 1, codec = oneIn(3) ? below(4) : 0;
        const bool outOfMemory = oneIn(6);
        return {"world", [=](auto& c) {
                    c.requestError = requestError;
                    c.handlerError = handlerError;
                    c.device->setOrientation(static_cast<DeviceOrientation>(orientation));
                    c.codec->failsAt = codec;
                    c.outOfMemory = outOfMemory;
                }};
    }
    /// The next time that something foreign is called, it calls an operation of the analyzer.
    Step armed() {
        const char* const places[] = {"log line", "request", "smile test", "encoding", "delegate call"};
        const std::string place = places[below(5)];
        const Step inner = place == "log line" || oneIn(4) ? frame() : control();
        Step outer{"during the next " + place + ": " + inner.text, [](auto&) {}};
        outer.real = [=](RealCapture& c) { c.during[place] = [&c, inner] { inner.real(c); }; };
        outer.model = [=](CaptureModel& c) { c.during[place] = [&c, inner] { inner.model(c); }; };
        return outer;
    }
    std::vector<FaceObservation> faces() {
        ScreenFace face;
        face.left.x += below(61) - 30;
        const std::pair<double*, double> faults[] = {
            {&face.left.x, 350}, {&face.left.y, 500}, {&face.noseLeft, 400}, {&face.chin, 1000}};
        if (oneIn(4)) {
            const auto& [number, wrong] = faults[below(4)];
            *number = wrong;
        }
        FaceObservation seen = face.observation();
        if (oneIn(20)) seen.landmarks->nose.reset();
        if (oneIn(40)) seen.landmarks.reset();
        if (oneIn(20)) seen.boundingBox = {0.1, 0.2, 0.7, 0.6};
        return std::vector(static_cast<std::size_t>(oneIn(10) ? below(4) : 1), seen);
    }
    template <typename Action>
    Step seeing(const std::string& text, Action action) {
        const double seconds = below(400) * 0.000333;
        const auto seen = oneIn(30) ? std::vector<FaceObservation>() : faces();
        if (oneIn(3)) smiling_ = below(2);
        const int smiling = smiling_, other = oneIn(10) ? below(3) : 1 - smiling;
        return {text + (smiling > 0 ? ", smiling" : ""), [=](auto& c) {
                    c.faces = seen;
                    c.smilingFaces = smiling;
                    c.otherFaces = other;
                    c.time += seconds;
                    action(c);
                }};
    }
    Step frame() {
        const auto picture = oneIn(40) ? static_cast<Frame::Picture>(below(3)) : Frame::Readable;
        const Frame first{mark_ + 1, oneIn(30) ? Size{12, 16} : frameSize_, picture};
        const Mark last = mark_ += oneIn(30) ? 20 : 1;
        return seeing("frame " + std::to_string(last), [=](auto& c) {
            for (Frame frame = first; frame.mark <= last; ++frame.mark) {
                c.analyzeSampleBuffer(frame);
                if (frame.mark < last) c.analysisQueue->runNext();
            }
        });
    }
    Step still() {
        const auto side = [this] { return static_cast<double>(10 * (1 + below(20))); };
        const std::optional<Frame> picture = Frame{++mark_, oneIn(2) ? frameSize_ : Size{side(), side()}};
        const auto found = oneIn(6) ? std::nullopt : picture;
        return seeing("still " + std::to_string(mark_), [=](auto& c) { c.analyzeImageAtPath(found); });
    }

    std::mt19937 random_;
    const int level_;
    const Size screen_;
    RealCapture real_;
    CaptureModel model_;
    const Size frameSize_;
    Mark mark_ = 0;
    int smiling_ = 0;
    std::string steps_;
    std::map<Results, Results> modelOf_;
};

TEST(Capture, TheAnalyzerDoesWhatTheModelDoes) {
#if defined(__SANITIZE_ADDRESS__)
    constexpr unsigned kCaptures = 300;  // many times slower
#else
    constexpr unsigned kCaptures = 800;
#endif
    const char* const only = std::getenv("SEED");
    const unsigned from = only ? static_cast<unsigned>(std::atoi(only)) : 0;
    for (unsigned seed = from; seed < (only ? from + 1 : kCaptures) && !HasFailure(); ++seed) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        const Scenario scenario(seed);
    }
}

}  // namespace
}  // namespace selvio
