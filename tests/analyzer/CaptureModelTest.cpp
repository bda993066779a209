// The analyzer and the model of a capture side by side, through hundreds of random captures.
#include "analyzer/CaptureModel.h"

#include <SelvioFacialCapture/imaging/Base64.h>

#include <random>

#include "analyzer/AnalyzerFixture.h"

namespace selvio {
namespace {

using reference::Call;
using reference::fire;
using reference::Frame;
using reference::Mark;
using reference::Results;
using reference::World;

/// A picture that says which frame it is.
std::shared_ptr<PixelBuffer> markedPicture(const Frame& frame, PixelFormat format) {
    auto picture = PixelBuffer::create(static_cast<int>(frame.size.width), static_cast<int>(frame.size.height), format);
    std::memcpy(picture->data(), &frame.mark, 3);
    return picture;
}
Mark markOf(const std::shared_ptr<const PixelBuffer>& picture) {
    Mark mark = 0;
    if (picture) std::memcpy(&mark, picture->data(), 3);
    return mark;
}

Results contentsOf(const SelvioFacialCaptureResults& results) {
    Results r;
    if (const auto statuses = results.orderedStatuses()) r.statuses.emplace(statuses->begin(), statuses->end());
    r.highest = results.highestPriorityStatus();
    r.code = results.resultCode();
    if (const auto image = results.selectedImage()) r.image = markOf(image->bitmap);
    r.encoded = results.encodedSelectedImage();
    if (r.encoded) {
        const auto bytes = base64::decode(*r.encoded).value();
        r.encoded.emplace(bytes.begin(), bytes.end());
    }
    r.record = results.obixDataString();
    r.faceRect = results.faceRect();
    r.contour = results.faceContourPoints();
    r.nose = results.nosePoints();
    r.lips = results.outerLipsPoints();
    return r;
}

/// The analyzer, driven like the model.
class RealCapture : public ManualAnalyzer, public Clock {
public:
    RealCapture(int serviceLevel, Size screenSize) {
        screen = screenSize;
        SelvioFacialCaptureUxpEventManager::setSharedClock(std::shared_ptr<Clock>(std::shared_ptr<void>(), this));
        SelvioFacialCaptureUxpEventManager::destroySharedInstance();
        (void)SelvioFacialCaptureUxpEventManager::sharedInstance();
        makeAnalyzer(serviceLevel);
        vision->setDuringRequest([this](const auto& question) {
            asked.push_back("request " + std::to_string(markOf(question.pixelBuffer)) + " orientation " +
                            std::to_string(question.exifOrientation) + " revision " +
                            std::to_string(question.revision));
            answer(world.duringRequest);
            vision->setObservations(world.faces);
            vision->setRequestError(world.requestError);
            vision->setHandlerError(world.handlerError);
        });
        smiles->setDuringTest([this](const Image& image) {
            asked.push_back("smile " + std::to_string(markOf(image.bitmap)));
            answer(world.duringTest);
            smiles->setFaces(world.smilingFaces + world.otherFaces);
            smiles->setSmiling(world.smilingFaces > 0);
        });
        codec->setDuringEncoding([this](const Image& image) {
            asked.push_back("encode " + std::to_string(markOf(image.bitmap)));
            answer(world.duringEncoding);
            codec->setFailsAt(world.codecFailsAt);
        });
        sink_ = setLogSink([this](std::string_view line) {
            logLines.emplace_back(line);
            fire(world.duringLogging);
        });
    }
    ~RealCapture() override {
        setLogSink(sink_);
        SelvioFacialCaptureUxpEventManager::setSharedClock(nullptr);
        SelvioFacialCaptureUxpEventManager::destroySharedInstance();
    }
    [[nodiscard]] double secondsSinceReferenceDate() const override { return world.time; }
    [[nodiscard]] std::chrono::nanoseconds monotonicTime() const override { return {}; }

    void setDelegate(std::optional<int> methods) {
        const auto told = methods ? std::make_shared<SelvioFacialCaptureAnalyzerDelegate>() : nullptr;
        const auto call = [this](const char* method) {
            return [this, method](const std::shared_ptr<SelvioFacialCaptureResults>& results) {
                calls.push_back({method, results, results ? contentsOf(*results) : Results()});
                if (results) given.emplace_back(results, calls.back().then);
                fire(world.duringCall);
            };
        };
        const int mask = methods.value_or(0);
        if (mask & reference::kResults) told->detectionResults = call("results");
        if (mask & reference::kCountdown) told->startCountdown = [f = call("countdown")] { f(nullptr); };
        if (mask & reference::kSuccess) told->detectionSuccess = call("success");
        if (mask & reference::kCancelled) told->detectionCancelled = call("cancelled");
        if (mask & reference::kManualOnly) told->manualOnly = [f = call("manualOnly")] { f(nullptr); };
        delegates_.push_back(told);
        analyzer->setDelegate(told);
    }
    void updateMode(std::int64_t mode) { analyzer->updateMode(mode); }
    void pauseFor(std::int64_t reason) { reason == 0 ? analyzer->pause() : analyzer->pauseFor(reason); }
    void resume() { analyzer->resume(); }
    void selectFrame() { analyzer->selectFrame(); }
    void stop() { analyzer->stop(); }
    void cancel() { analyzer->cancel(); }
    void rotate(RotationRate rate) { motion->rotate(rate); }
    void analyzeSampleBuffer(const Frame& frame) {
        const PixelFormat format = frame.mark % 2 == 0 ? kPixelFormat32BGRA : kPixelFormat420v;
        analyzer->analyzeSampleBuffer(
            SampleBuffer::makeVideo(frame.hasPicture ? markedPicture(frame, format) : nullptr));
    }
    void analyzeImageAtPath(const std::optional<Frame>& picture) {
        if (picture) loader->setPicture(markedPicture(*picture, kPixelFormat32BGRA));
        analyzer->analyzeImageAtPath(picture ? "still.jpg" : "missing.jpg");
    }
    void runAnalysisBlock() {
        device->setOrientation(static_cast<DeviceOrientation>(world.orientation));
        analysisQueue->runNext();
    }
    void runGlobalBlock() { globalQueue->runNext(); }
    void runMainBlock() { mainQueue->runNext(); }
    [[nodiscard]] std::vector<std::size_t> blocks() const {
        return {analysisQueue->size(), globalQueue->size(), mainQueue->size()};
    }

    World world;
    std::vector<Call> calls;
    std::vector<std::string> asked, logLines;
    std::vector<std::pair<std::shared_ptr<SelvioFacialCaptureResults>, Results>> given;  ///< as the delegate saw them

private:
    void answer(std::function<void()>& hook) {
        fire(hook);
        if (world.throws) throw std::bad_alloc();
    }
    std::vector<std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate>> delegates_;
    LogSink sink_;
};

/// One random capture.
class Scenario {
public:
    Scenario(unsigned seed, std::set<std::string>& outcomes)
        : random_(seed),
          level_(oneIn(10) ? 10 + below(3) : 13),
          screen_(oneIn(5) ? Size{375, 812} : Size{1000, 1700}),
          real_(level_, screen_),
          model_(level_, screen_, real_.analyzer->obixData()->obixDataDictionary()) {
        frameSize_ = oneIn(10) ? Size{9, 16} : oneIn(10) ? Size{18, 10} : Size{10, 17};
        play(op("setDelegate 31", [](auto& c) { c.setDelegate(31); }));
        for (const Op& setting : {parameter(0), parameter(1), parameter(2)})
            if (oneIn(2)) play(setting);
        int afterEnd = 5;
        for (int i = 0; i < 60 && afterEnd > 0 && !::testing::Test::HasFailure(); ++i) {
            play(anyStep());
            if (model_.spent) --afterEnd;
        }
        for (const auto& [object, contents] : real_.given) same("given to a delegate", contentsOf(*object), contents);
        outcomes.merge(model_.outcomes);
    }

private:
    struct Op {
        std::string text;
        std::function<void()> real, model;
    };
    template <typename Action>
    Op op(const std::string& text, Action action) {
        return {text, [this, action] { action(real_); }, [this, action] { action(model_); }};
    }
    void play(const Op& step) {
        steps_ += "\n    " + step.text;
        step.real();
        step.model();
        compare();
    }
    template <typename T>
    void same(const char* what, const T& is, const T& right) {
        if (!(is == right))
            ADD_FAILURE() << what << "\n  is:        " << ::testing::PrintToString(is)
                          << "\n  should be: " << ::testing::PrintToString(right) << "\n  after: " << steps_;
    }
    void same(std::shared_ptr<const void> is, const std::shared_ptr<const void>& right) {
        same("the same object", modelOf_.try_emplace(std::move(is), right).first->second == right, true);
    }
    void compare() {
        const auto& a = *real_.analyzer;
        const auto& m = model_;
        const auto calls = std::exchange(real_.calls, {}), expected = std::exchange(model_.calls, {});
        same("delegate calls", calls.size(), expected.size());
        for (std::size_t i = 0; i < std::min(calls.size(), expected.size()); ++i) {
            same("delegate call", calls[i].method, expected[i].method);
            same(calls[i].method.c_str(), calls[i].then, expected[i].then);
            same(calls[i].object, expected[i].object);
        }
        same("asked of the ports", std::exchange(real_.asked, {}), std::exchange(model_.asked, {}));
        same("log lines", std::exchange(real_.logLines, {}), std::exchange(model_.logLines, {}));
        same("in progress", a.inProgress(), m.inProgress);
        same("blocks on the three queues", real_.blocks(), m.blocks());
        same("motion feed", real_.motion->isRunning(), m.motionRuns);
        same("mode", real_.parameters->mode(), m.parameters->mode());
        const auto events = SelvioFacialCaptureUxpEventManager::sharedInstance()->events();
        if (events != m.log) same("event log", events.dump(), m.log.dump());
        std::deque<Mark> marks;
        for (const Image& image : a.imagesArray()) marks.push_back(markOf(image.bitmap));
        same("history", marks, m.history);
        if (m.spent) return same("spent", a.results() == nullptr && a.parameters() == nullptr, true);

        same("selectionInProgress", a.selectionInProgress(), m.selection);
        same("smileDetectionInProgress", a.smileDetectionInProgress(), m.smileTest);
        same("shouldSkipFrames", a.shouldSkipFrames(), m.skip);
        same("shouldSelectCurrentFrame", a.shouldSelectCurrentFrame(), m.select);
        same("manualOnly", a.manualOnly(), m.manualOnly);
        same("shouldHoldStill", a.shouldHoldStill(), m.holdStill);
        same("shouldStartCountdown", a.shouldStartCountdown(), m.startCountdown);
        same("smileStatus", a.smileStatus(), m.smileStatus);
        same("exifOrientation", a.exifOrientation(), m.exif);
        same<std::vector<double>>(
            "geometry",
            {a.resolution().width, a.resolution().height, a.biggerScreenSide(), a.smallerScreenSide(),
             a.biggerPreviewSide(), a.smallerPreviewSide(), a.wAdjuster(), a.hAdjuster(), a.xAdjuster(), a.yAdjuster()},
            {m.screen.resolution.width, m.screen.resolution.height, m.screen.big, m.screen.small, m.screen.previewBig,
             m.screen.previewSmall, m.screen.w, m.screen.h, m.screen.x, m.screen.y});
        same<std::vector<double>>(
            "face",
            {a.noseMiddle().x, a.noseMiddle().y, a.lipLeft().x, a.lipLeft().y, a.lipRight().x, a.lipRight().y,
             a.faceHorizontalFill()},
            {m.noseMiddle.x, m.noseMiddle.y, m.lipLeft.x, m.lipLeft.y, m.lipRight.x, m.lipRight.y, m.fill});
        same("results()", contentsOf(*a.results()), *m.results);
        same(a.results(), m.results);
    }

    // The steps of a capture.

    int below(int n) { return std::uniform_int_distribution(0, n - 1)(random_); }
    bool oneIn(int n) { return below(n) == 0; }

    Op anyStep() {
        const int n = below(100);
        if (n < 26) return frame();
        if (n < 43) return op("analysis", [](auto& c) { c.runAnalysisBlock(); });
        if (n < 49) return op("global", [](auto& c) { c.runGlobalBlock(); });
        if (n < 57) return op("main", [](auto& c) { c.runMainBlock(); });
        if (n < 69) {
            return op("settle", [](auto& c) {
                while (c.blocks() != std::vector<std::size_t>(3)) {
                    c.runAnalysisBlock();
                    c.runGlobalBlock();
                    c.runMainBlock();
                }
            });
        }
        if (n < 73) return still();
        if (n < 80) return armed();
        if (n < 84) return world();
        if (n < 85) return burst();
        return control();
    }
    Op control() {
        const int n = below(32);
        if (n < 2) return op("resume", [](auto& c) { c.resume(); });
        if (n < 8) return op("resume", [](auto& c) { c.resume(); });
        if (n < 14) return op("selectFrame", [](auto& c) { c.selectFrame(); });
        if (n == 14) return op("stop", [](auto& c) { c.stop(); });
        if (n == 15) return op("cancel", [](auto& c) { c.cancel(); });
        if (n < 20) {
            const std::optional<int> methods = oneIn(8) ? std::optional<int>() : oneIn(3) ? below(32) : 31;
            return op("setDelegate " + std::to_string(methods.value_or(-1)), [=](auto& c) { c.setDelegate(methods); });
        }
        if (n < 24) {
            const int reason = oneIn(3) ? 0 : below(7) - 1;
            return op("pauseFor " + std::to_string(reason), [=](auto& c) { c.pauseFor(reason); });
        }
        if (n < 26) {
            const double rates[] = {0, 0, 0, 0.1, -0.1, 0.11, -0.11};
            const RotationRate rate{rates[below(7)], rates[below(7)], rates[below(7)]};
            return op("motion", [=](auto& c) { c.rotate(rate); });
        }
        return parameter(below(4));
    }
    Op parameter(int which) {
        const int value = below(4);
        const std::string text = std::to_string(value);
        if (which == 0) return op("updateMode " + text, [=](auto& c) { c.updateMode(value); });
        if (which == 1) return op("countdown " + text, [=](auto& c) { c.parameters->setCountdownTime(value); });
        if (which == 2) return op("on smile " + text, [=](auto& c) { c.parameters->setSelectOnSmile(value > 1); });
        const int roll = below(1000), pitch = below(1000), yaw = below(1000), fill = below(150), quality = below(100);
        return op("limits", [=](auto& c) {
            c.parameters->setRoll(roll);
            c.parameters->setPitch(pitch);
            c.parameters->setYaw(yaw);
            c.parameters->setMinFill(500 + fill);
            c.parameters->setMaxFill(650 + fill);
            c.parameters->setImageQuality(quality);
        });
    }
    Op world() {
        const auto error = [this](const char* text) { return oneIn(6) ? std::optional(Error{text}) : std::nullopt; };
        const auto requestError = error("blurred"), handlerError = error("no model");
        const int orientation = below(8) - 1, codec = oneIn(3) ? below(4) : 0;
        const bool throws = oneIn(6);
        return op("world", [=](auto& c) {
            c.world.requestError = requestError;
            c.world.handlerError = handlerError;
            c.world.orientation = orientation;
            c.world.codecFailsAt = codec;
            c.world.throws = throws;
        });
    }
    /// The next time that something foreign is called, it calls an operation of the analyzer.
    Op armed() {
        using Hook = std::function<void()> World::*;
        static const std::pair<const char*, Hook> kPlaces[] = {{"log line", &World::duringLogging},
                                                               {"request", &World::duringRequest},
                                                               {"smile test", &World::duringTest},
                                                               {"encoding", &World::duringEncoding},
                                                               {"delegate call", &World::duringCall}};
        const auto& [name, place] = kPlaces[below(5)];
        const Op inner = place == &World::duringLogging || oneIn(4) ? frame() : control();
        return {std::string("during the next ") + name + ": " + inner.text,
                [=, this, at = place] { real_.world.*at = inner.real; },
                [=, this, at = place] { model_.world.*at = inner.model; }};
    }
    std::vector<FaceObservation> faces() {
        ScreenFace f;
        const double off = below(61) - 30;
        f.left.x += off;
        f.right.x += off;
        const int fault = below(16);
        if (fault == 0) f.left.x = 350;
        if (fault == 1) f.left.y = 500;
        if (fault == 2) f.noseLeft = 400;
        if (fault == 3) f.chin.y = 1000;
        if (fault == 4) f.left.x = 50;
        FaceObservation face = f.observation(oneIn(4));
        if (oneIn(20)) face.landmarks->nose.reset();
        if (oneIn(40)) face.landmarks.reset();
        if (oneIn(20)) face.boundingBox = {0.1, 0.2, 0.7, 0.6};
        return std::vector(static_cast<std::size_t>(oneIn(10) ? below(4) : 1), face);
    }
    template <typename Action>
    Op seeing(const std::string& text, Action action) {
        const double seconds = below(400) * 0.000333;
        const auto seen = oneIn(30) ? std::vector<FaceObservation>() : faces();
        if (oneIn(3)) smiling_ = below(2);
        const int smiling = smiling_, other = oneIn(10) ? below(3) : 1 - smiling;
        return op(text + (smiling > 0 ? ", smiling" : ""), [=](auto& c) {
            c.world.faces = seen;
            c.world.smilingFaces = smiling;
            c.world.otherFaces = other;
            c.world.time += seconds;
            action(c);
        });
    }
    Op frame() {
        const Frame frame{++mark_, oneIn(30) ? Size{12, 16} : frameSize_, !oneIn(40)};
        return seeing("frame " + std::to_string(mark_), [=](auto& c) { c.analyzeSampleBuffer(frame); });
    }
    Op burst() {
        const Frame first{mark_ + 1, frameSize_};
        mark_ += 20;
        return seeing("frames to " + std::to_string(mark_), [=](auto& c) {
            for (Frame frame = first; frame.mark < first.mark + 20; ++frame.mark) {
                c.analyzeSampleBuffer(frame);
                c.runAnalysisBlock();
            }
        });
    }
    Op still() {
        const auto side = [this] { return static_cast<double>(10 * (1 + below(20))); };
        const Frame picture{++mark_, oneIn(2) ? frameSize_ : Size{side(), side()}};
        const bool missing = oneIn(6);
        return seeing("still " + std::to_string(mark_),
                      [=](auto& c) { c.analyzeImageAtPath(missing ? std::nullopt : std::optional(picture)); });
    }

    std::mt19937 random_;
    const int level_;
    const Size screen_;
    RealCapture real_;
    reference::CaptureModel model_;
    Size frameSize_;
    Mark mark_ = 0;
    int smiling_ = 0;
    std::string steps_;
    std::map<std::shared_ptr<const void>, std::shared_ptr<const void>> modelOf_;
};

TEST(Capture, TheAnalyzerDoesWhatTheModelDoes) {
    std::set<std::string> outcomes;
#if defined(__SANITIZE_ADDRESS__)
    constexpr unsigned kCaptures = 300;  // many times slower
#else
    constexpr unsigned kCaptures = 800;
#endif
    const char* only = std::getenv("SEED");
    const unsigned from = only ? static_cast<unsigned>(std::atoi(only)) : 0;
    for (unsigned seed = from; seed < (only ? from + 1 : kCaptures) && !HasFailure(); ++seed) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        const Scenario scenario(seed, outcomes);
    }
    EXPECT_THAT(outcomes, ::testing::IsSupersetOf({"automatic", "manual", "manual delivery", "smile came", "smile went",
                                                   "a smile test overtaken by a pause", "a step of an ended run",
                                                   "a newer one took a waiting one's place"}));
}

}  // namespace
}  // namespace selvio
