// The analyzer and the model of a capture side by side, through thousands of random captures.
#include "analyzer/CaptureModel.h"

#include <SelvioFacialCapture/imaging/Base64.h>

#include <random>

#include "analyzer/AnalyzerFixture.h"

namespace selvio {
namespace {

using reference::Frame;
using World = reference::CaptureModel::World;

/// A picture that says which frame it is.
std::shared_ptr<PixelBuffer> markedPicture(const Frame& frame, PixelFormat format) {
    auto picture = PixelBuffer::create(static_cast<int>(frame.size.width), static_cast<int>(frame.size.height), format);
    std::memcpy(picture->data(), &frame.mark, 3);
    return picture;
}
reference::Mark markOf(const std::shared_ptr<const PixelBuffer>& picture) {
    reference::Mark mark = 0;
    if (picture) std::memcpy(&mark, picture->data(), 3);
    return mark;
}

reference::Results contentsOf(const SelvioFacialCaptureResults& results) {
    reference::Results r;
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

std::string textOf(const reference::Results& r) {
    std::string text = "statuses";
    if (!r.statuses) text += " none";
    for (const auto status : r.statuses.value_or(std::vector<std::int64_t>())) text += " " + std::to_string(status);
    return text + " highest " + std::to_string(r.highest) + " code " + std::to_string(r.code) + " image " +
           std::to_string(r.image.value_or(-1)) + " " + r.encoded.value_or("") + " record " + r.record.value_or("");
}

/// One random capture.
class Scenario : public ManualAnalyzer {
public:
    explicit Scenario(unsigned seed, std::set<std::string>& outcomes) : random_(seed) {
        const int level = oneIn(10) ? 10 + below(3) : 13;
        if (oneIn(5)) screen = {375, 812};
        frameSize_ = oneIn(10) ? Size{9, 16} : oneIn(10) ? Size{18, 10} : Size{10, 17};
        SelvioFacialCaptureUxpEventManager::setSharedClock(clock_);
        SelvioFacialCaptureUxpEventManager::destroySharedInstance();
        (void)SelvioFacialCaptureUxpEventManager::sharedInstance();
        makeAnalyzer(level);
        model_.emplace(level, screen, analyzer->obixData()->obixDataDictionary());
        vision->setDuringRequest([this](const auto& question) {
            asked_.push_back("request " + std::to_string(markOf(question.picture)) + " orientation " +
                             std::to_string(question.exifOrientation) + " revision " +
                             std::to_string(question.revision));
            fire(duringRequest_);
        });
        smiles->setDuringTest([this](const Image& image) {
            asked_.push_back("smile " + std::to_string(markOf(image.bitmap)));
            fire(duringTest_);
        });
        codec->setDuringEncoding([this](const Image& image) {
            asked_.push_back("encode " + std::to_string(markOf(image.bitmap)));
            fire(duringEncoding_);
            if (throwsAtEncoding_) throw std::bad_alloc();
        });
        play(setDelegate(31));
        for (const Op& op : {smileMode(), updateMode(), countdownTime()})
            if (oneIn(2)) play(op);
        int afterEnd = 5;
        for (int i = 0; i < 60 && afterEnd > 0 && !::testing::Test::HasFailure(); ++i) {
            play(anyStep());
            if (model_->spent) --afterEnd;
        }
        for (const auto& [object, contents] : told_) {
            if (!(contentsOf(*object) == contents)) fail("written after it was told", contentsOf(*object), contents);
        }
        outcomes.merge(model_->outcomes);
    }
    ~Scenario() {
        SelvioFacialCaptureUxpEventManager::setSharedClock(nullptr);
        SelvioFacialCaptureUxpEventManager::destroySharedInstance();
    }

private:
    struct Op {
        std::string text;
        std::function<void()> real, model;
    };
    using Hook = std::function<void()>;

    void fail(const std::string& what, const reference::Results& is, const reference::Results& right) {
        ADD_FAILURE() << what << "\n  is:        " << textOf(is) << "\n  should be: " << textOf(right) << "\n"
                      << steps_;
    }
    template <typename T, typename U>
    void same(const char* what, const T& is, const U& right) {
        if (!(is == right))
            ADD_FAILURE() << what << "\n  is:        " << ::testing::PrintToString(is)
                          << "\n  should be: " << ::testing::PrintToString(right) << "\n"
                          << steps_;
    }

    void play(const Op& op) {
        steps_ += "  " + op.text + "\n";
        op.real();
        op.model();
        compare();
    }
    void compare() {
        auto& m = *model_;
        const auto& a = *analyzer;
        std::vector<std::string> should;
        for (const auto& call : std::exchange(m.calls, {})) {
            if (calls_.empty()) {
                fail("missing: " + call.method, {}, call.then);
                break;
            }
            const auto [method, object, then] = std::exchange(calls_.front(), {});
            calls_.pop_front();
            same("call", method, call.method);
            if (!(then == call.then)) fail(call.method, then, call.then);
            same("the same object", modelOf_.try_emplace(object, call.object).first->second, call.object);
            if (object) told_.emplace_back(object, then);
        }
        same("calls too many", calls_.size(), 0U);
        same("asked of the ports", std::exchange(asked_, {}), std::exchange(m.asked, {}));
        same("log lines", lines_.take(), std::exchange(m.logLines, {}));
        same("in progress", a.inProgress(), m.inProgress);
        same("main blocks", mainQueue->size(), m.mainBlocks);
        same("global blocks", globalQueue->size(), m.globalBlocks());
        same("analysis blocks", analysisQueue->size(), m.analysisQueue.size());
        same("motion", motion->isRunning(), m.motionRuns);
        const auto log = SelvioFacialCaptureUxpEventManager::sharedInstance()->events();
        if (log != m.log) same("log", log.dump(), m.log.dump());
        same("mode", parameters->mode(), m.parameters.mode);
        const auto images = a.imagesArray();
        std::deque<reference::Mark> marks;
        for (const Image& image : images) marks.push_back(markOf(image.bitmap));
        same("history", marks, m.history);
        const auto results = a.results();
        if (m.spent) {
            same("results", results == nullptr && a.parameters() == nullptr, true);
            return;
        }
        same("selectionInProgress", a.selectionInProgress(), m.selection);
        same("smileDetectionInProgress", a.smileDetectionInProgress(), m.smileTest);
        same("shouldSkipFrames", a.shouldSkipFrames(), m.skip);
        same("shouldSelectCurrentFrame", a.shouldSelectCurrentFrame(), m.select);
        same("manualOnly", a.manualOnly(), m.manualOnly);
        same("shouldHoldStill", a.shouldHoldStill(), m.holdStill);
        same("shouldStartCountdown", a.shouldStartCountdown(), m.startCountdown);
        same("smileStatus", a.smileStatus(), m.smileStatus);
        same("exifOrientation", a.exifOrientation(), m.exif);
        same("resolution", a.resolution() == m.screen.resolution, true);
        same("noseMiddle", a.noseMiddle() == m.noseMiddle, true);
        same("lips", a.lipLeft() == m.lipLeft && a.lipRight() == m.lipRight, true);
        same("fill", a.faceHorizontalFill(), m.fill);
        if (!(contentsOf(*results) == *m.results)) fail("results()", contentsOf(*results), *m.results);
        same("results() is the same object", modelOf_.try_emplace(results, m.results).first->second == m.results, true);
    }

    // The steps of a capture.

    int below(int n) { return std::uniform_int_distribution(0, n - 1)(random_); }
    bool oneIn(int n) { return below(n) == 0; }
    static void fire(Hook& hook) {
        if (const auto once = std::exchange(hook, nullptr)) once();
    }

    Op anyStep() {
        const int n = below(100);
        if (n < 26) return frame();
        if (n < 44) return {"analysis", [this] { analysisQueue->runNext(); }, [this] { model_->runAnalysisBlock(); }};
        if (n < 50) return {"global", [this] { globalQueue->runNext(); }, [this] { model_->runGlobalBlock(); }};
        if (n < 58) return {"main", [this] { mainQueue->runNext(); }, [this] { model_->runMainBlock(); }};
        if (n < 70) return settle();
        if (n < 73) return still();
        if (n < 77) return smile();
        if (n < 83) return armed();
        if (n < 85) return world();
        return control();
    }
    Op control() {
        switch (below(16)) {
            case 0:
                return setDelegate(oneIn(4) ? std::optional<int>() : oneIn(2) ? 31 : below(32));
            case 1:
                return updateMode();
            case 2: {
                const int reason = below(7) - 1;
                return {"pauseFor " + std::to_string(reason), [=, this] { analyzer->pauseFor(reason); },
                        [=, this] { model_->pauseFor(reason); }};
            }
            case 3:
                return smileMode();
            case 4:
                return countdownTime();
            case 5:
                return limits();
            case 6:
                return setDelegate(31);
            case 7:
            case 8:
            case 9:
                return {"selectFrame", [this] { analyzer->selectFrame(); }, [this] { model_->selectFrame(); }};
            case 10:
                if (oneIn(4)) return {"stop", [this] { analyzer->stop(); }, [this] { model_->stop(); }};
                return motionReading();
            case 11:
                if (oneIn(4)) return {"cancel", [this] { analyzer->cancel(); }, [this] { model_->cancel(); }};
                return {"pause", [this] { analyzer->pause(); }, [this] { model_->pauseFor(0); }};
            default:
                return {"resume", [this] { analyzer->resume(); }, [this] { model_->resume(); }};
        }
    }
    Op setDelegate(std::optional<int> methods) {
        auto told = std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
        const auto call = [this](const char* method) {
            return [this, method](const std::shared_ptr<SelvioFacialCaptureResults>& results) {
                calls_.push_back({method, results, results ? contentsOf(*results) : reference::Results()});
                fire(duringCall_);
            };
        };
        const int mask = methods.value_or(0);
        if (mask & reference::kResults) told->detectionResults = call("results");
        if (mask & reference::kCountdown) told->startCountdown = [f = call("countdown")] { f(nullptr); };
        if (mask & reference::kSuccess) told->detectionSuccess = call("success");
        if (mask & reference::kCancelled) told->detectionCancelled = call("cancelled");
        if (mask & reference::kManualOnly) told->manualOnly = [f = call("manualOnly")] { f(nullptr); };
        if (!methods) told = nullptr;
        return {"setDelegate " + std::to_string(methods.value_or(-1)),
                [=, this] {
                    analyzer->setDelegate(told);
                    delegate_ = told;  // what it held before is kept by the analyzer only while it calls it
                },
                [=, this] { model_->setDelegate(methods); }};
    }
    Op updateMode() {
        const int mode = below(4);
        return {"updateMode " + std::to_string(mode), [=, this] { analyzer->updateMode(mode); },
                [=, this] { model_->updateMode(mode); }};
    }
    Op smileMode() {
        const bool on = oneIn(2);
        return {on ? "selectOnSmile" : "no selectOnSmile", [=, this] { parameters->setSelectOnSmile(on); },
                [=, this] { model_->parameters.selectOnSmile = on; }};
    }
    Op countdownTime() {
        const int seconds = below(4);
        return {"countdownTime " + std::to_string(seconds), [=, this] { parameters->setCountdownTime(seconds); },
                [=, this] { model_->parameters.countdownTime = seconds; }};
    }
    Op limits() {
        const reference::Strictness s{100 * below(11), 100 * below(11), 100 * below(11), 400 + 10 * below(20),
                                      700 + 10 * below(20)};
        const int quality = 5 + below(96);
        return {"limits",
                [=, this] {
                    parameters->setMaxFill(900);
                    parameters->setMinFill(s.minFill);
                    parameters->setMaxFill(s.maxFill);
                    parameters->setRoll(s.roll);
                    parameters->setPitch(s.pitch);
                    parameters->setYaw(s.yaw);
                    parameters->setImageQuality(quality);
                },
                [=, this] {
                    model_->parameters.strictness = s;
                    model_->parameters.imageQuality = quality;
                }};
    }
    Op motionReading() {
        const auto rate = [this] {
            return std::array{0.0, 0.0, 0.0, 0.1, -0.1, 0.11, -0.11}[static_cast<std::size_t>(below(7))];
        };
        const RotationRate r{rate(), rate(), rate()};
        return {"motion", [=, this] { motion->rotate(r); }, [=, this] { model_->rotate(r); }};
    }
    FaceObservation face() {
        ScreenFace f;
        const double off = below(61) - 30;
        f.left.x += off, f.right.x += off;
        switch (below(16)) {
            case 0:
                f.left.x = 350, f.right.x = 650;
                break;
            case 1:
                f.left.y = 500;
                break;
            case 2:
                f.noseLeft = 400;
                break;
            case 3:
                f.chin.y = 1000;
                break;
            case 4:
                f.left.x = 50;
                break;
            default:
                break;
        }
        FaceObservation o = f.observation(oneIn(4));
        if (oneIn(20)) o.landmarks->nose.reset();
        if (oneIn(40)) o.landmarks.reset();
        if (oneIn(20)) o.boundingBox = {0.1, 0.2, 0.7, 0.6};
        return o;
    }
    Op showing() {
        std::optional<std::vector<FaceObservation>> faces(std::in_place);
        if (oneIn(30))
            faces.reset();
        else if (oneIn(12))
            faces->resize(static_cast<std::size_t>(below(4)), face());
        else
            faces->push_back(face());
        const int milliseconds = below(400);
        return {"",
                [=, this] {
                    vision->setObservations(faces);
                    clock_->advance(std::chrono::microseconds(333 * milliseconds));
                },
                [=, this] {
                    model_->world.faces = faces;
                    modelClock_.advance(std::chrono::microseconds(333 * milliseconds));
                    model_->world.time = modelClock_.secondsSinceReferenceDate();
                }};
    }
    Op frame() {
        const Op shown = showing();
        const Frame f{++mark_, oneIn(30) ? Size{12, 16} : frameSize_, !oneIn(40)};
        const PixelFormat format = oneIn(2) ? kPixelFormat32BGRA : kPixelFormat420v;
        return {"frame " + std::to_string(f.mark),
                [=, this] {
                    shown.real();
                    analyzer->analyzeSampleBuffer(
                        SampleBuffer::makeVideo(f.hasPicture ? markedPicture(f, format) : nullptr));
                },
                [=, this] {
                    shown.model();
                    model_->analyzeSampleBuffer(f);
                }};
    }
    Op still() {
        const Op shown = showing();
        const bool missing = oneIn(6);
        const Frame f{++mark_, oneIn(4) ? Size{30, 40} : frameSize_};
        return {"still " + std::to_string(f.mark),
                [=, this] {
                    shown.real();
                    loader->setPicture(markedPicture(f, kPixelFormat32BGRA));
                    analyzer->analyzeImageAtPath(missing ? "missing.jpg" : "still.jpg");
                },
                [=, this] {
                    shown.model();
                    model_->analyzeImageAtPath(missing ? std::nullopt : std::optional(f));
                }};
    }
    Op settle() {
        return {"settle",
                [this] {
                    while (analysisQueue->size() + globalQueue->size() + mainQueue->size() > 0) {
                        analysisQueue->runNext();
                        globalQueue->runNext();
                        mainQueue->runNext();
                    }
                },
                [this] {
                    while (model_->analysisQueue.size() + model_->globalBlocks() + model_->mainBlocks > 0) {
                        model_->runAnalysisBlock();
                        model_->runGlobalBlock();
                        model_->runMainBlock();
                    }
                }};
    }
    Op smile() {
        const bool smiling = oneIn(2);
        const int faces = oneIn(6) ? below(3) : 1;
        return {(smiling ? "smiling, " : "not smiling, ") + std::to_string(faces),
                [=, this] {
                    smiles->setSmiling(smiling);
                    smiles->setFaces(faces);
                },
                [=, this] {
                    model_->world.smiling = smiling;
                    model_->world.smileFaces = faces;
                }};
    }
    Op world() {
        const int orientation = below(8), codecState = oneIn(2) ? 0 : below(5);
        const auto requestError = oneIn(6) ? std::optional<std::string>("blurred") : std::nullopt;
        const auto handlerError = oneIn(6) ? std::optional<std::string>("no model") : std::nullopt;
        return {"world: orientation " + std::to_string(orientation) + ", codec " + std::to_string(codecState),
                [=, this] {
                    device->setOrientation(static_cast<DeviceOrientation>(orientation));
                    vision->setRequestError(requestError ? std::optional(Error{*requestError}) : std::nullopt);
                    vision->setHandlerError(handlerError ? std::optional(Error{*handlerError}) : std::nullopt);
                    codec->setFailsAt(codecState % 4);
                    throwsAtEncoding_ = codecState == 4;
                },
                [=, this] {
                    model_->world.orientation = orientation;
                    model_->world.requestError = requestError;
                    model_->world.handlerError = handlerError;
                    model_->world.codec = codecState == 0   ? World::Codec::Works
                                          : codecState == 4 ? World::Codec::Throws
                                                            : World::Codec::Fails;
                }};
    }
    /// The next time that something foreign is called, it calls an operation of the analyzer.
    Op armed() {
        const Op op = oneIn(4) ? frame() : control();
        static const struct {
            const char* name;
            Hook Scenario::*real;
            Hook World::*model;
        } kPlaces[] = {{"request", &Scenario::duringRequest_, &World::duringRequest},
                       {"smile test", &Scenario::duringTest_, &World::duringTest},
                       {"encoding", &Scenario::duringEncoding_, &World::duringEncoding},
                       {"delegate call", &Scenario::duringCall_, &World::duringCall}};
        const auto& place = kPlaces[below(4)];
        return {std::string("during the next ") + place.name + ": " + op.text,
                [=, this] { this->*place.real = op.real; }, [=, this] { model_->world.*place.model = op.model; }};
    }
    std::mt19937 random_;
    Size frameSize_;
    const std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>();
    ManualClock modelClock_;
    std::optional<reference::CaptureModel> model_;
    std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate> delegate_;
    Hook duringRequest_, duringTest_, duringEncoding_, duringCall_;
    bool throwsAtEncoding_ = false;
    reference::Mark mark_ = 0;
    std::string steps_;
    std::vector<std::string> asked_;
    struct RealCall {
        std::string method;
        std::shared_ptr<SelvioFacialCaptureResults> object;
        reference::Results then;
    };
    std::deque<RealCall> calls_;
    std::vector<std::pair<std::shared_ptr<SelvioFacialCaptureResults>, reference::Results>> told_;
    std::map<std::shared_ptr<SelvioFacialCaptureResults>, std::shared_ptr<const reference::Results>> modelOf_;
    LogCapture lines_;
};

TEST(Capture, TheAnalyzerDoesWhatTheModelDoes) {
    std::set<std::string> outcomes;
    const char* only = std::getenv("SEED");
    for (unsigned seed = only ? static_cast<unsigned>(std::atoi(only)) : 0;
         seed < (only ? static_cast<unsigned>(std::atoi(only)) + 1 : 1000U) && !::testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        const Scenario scenario(seed, outcomes);
    }
    EXPECT_THAT(outcomes, ::testing::IsSupersetOf({"automatic", "manual", "manual delivery", "smile came", "smile went",
                                                   "a smile test overtaken by a pause", "a step of an ended run",
                                                   "a newer one took a waiting one's place"}));
}

}  // namespace
}  // namespace selvio
