// The analyzer and a model of it side by side through hundreds of random captures.
//
// The model is one capture a second time, written on its own. Everything happens when it is called; what the analyzer
// submits to a queue waits there in a list that the test runs in step with that queue. The checks of a face, the data
// record and the event log are the component's: they have tests of their own.
#include <SelvioFacialCapture/rules/FaceChecks.h>

#include <cmath>
#include <cstring>
#include <deque>
#include <nlohmann/json.hpp>
#include <random>
#include <set>

#include "analyzer/AnalyzerFixture.h"
#include "analyzer/rules/DeviceOrientation.h"
#include "analyzer/rules/StatusEvents.h"

namespace selvio {
namespace {

using Mark = int;  ///< which frame; written into its pixels
using Results = std::shared_ptr<SelvioFacialCaptureResults>;
using Statuses = std::vector<SelvioFacialCaptureStatus>;

struct Frame {
    Mark mark = 0;
    Size size{9, 16};
    enum Picture { Readable, Unreadable, None } picture = Readable;
};

std::shared_ptr<PixelBuffer> pictureOf(const Frame& frame) {
    const PixelFormat format = frame.mark % 2 == 0 ? kPixelFormat32BGRA : kPixelFormat420v;
    auto picture = PixelBuffer::create(static_cast<int>(frame.size.width), static_cast<int>(frame.size.height), format);
    std::memcpy(picture->data(), &frame.mark, sizeof frame.mark);
    return picture;
}
Mark markOf(const std::shared_ptr<const PixelBuffer>& picture) {
    Mark mark = 0;
    if (picture) std::memcpy(&mark, picture->data(), sizeof mark);
    return mark;
}

auto contentsOf(const SelvioFacialCaptureResults& results) {
    return std::tuple(results.orderedStatuses(), results.highestPriorityStatus(), results.resultCode(),
                      markOf(results.selectedImage().value_or(Image()).bitmap), results.encodedSelectedImage(),
                      results.obixDataString(), results.faceRect(), results.faceContourPoints(), results.nosePoints(),
                      results.outerLipsPoints());
}
using Contents = decltype(contentsOf(SelvioFacialCaptureResults()));

using Methods = std::set<std::string>;

/// What the ports answer.
struct World {
    std::vector<FaceObservation> faces = {};
    std::optional<Error> requestError = {}, handlerError = {};
    int smilingFaces = 0, otherFaces = 1;  ///< what the smile test sees
    bool outOfMemory = false;              ///< in the detectors and the codec
};

/// A capture whose ports and host answer as the test says and write down what they are asked and told.
class DrivenCapture : public ManualAnalyzer, public Clock {
public:
    DrivenCapture() {
        codec->duringEncoding = [this](const Image& image) { insist("encoding", markOf(image.bitmap)); };
    }
    World world;
    double time = 0;
    std::map<std::string, std::function<void()>> during;  ///< called once, at that place
    std::vector<std::string> asked;                       ///< of the ports; and the log lines
    std::vector<std::pair<std::string, Contents>> calls;  ///< of the delegate, with what came with them
    std::vector<std::pair<Results, Contents>> given;      ///< to the delegate, and what it held at that time

    double secondsSinceReferenceDate() const override { return time; }
    std::chrono::nanoseconds monotonicTime() const override { return {}; }
    std::shared_ptr<Clock> clock() { return {std::shared_ptr<void>(), this}; }
    auto blocks() const { return std::array{analysisQueue->size(), globalQueue->size(), mainQueue->size()}; }
    void settle() {
        while (analysisQueue->runNext() || globalQueue->runNext() || mainQueue->runNext()) {
        }
    }

protected:
    void reach(const std::string& place) {
        if (const auto once = std::exchange(during[place], nullptr)) once();
    }
    /// False if there is not enough memory for the answer.
    bool ask(const std::string& port, Mark mark, std::uint32_t orientation = 0, int revision = 0) {
        asked.push_back(::testing::PrintToString(std::tuple(port, mark, orientation, revision)));
        reach(port);
        return !world.outOfMemory;
    }
    void insist(const auto&... question) {
        if (!ask(question...)) throw std::bad_alloc();
    }
    void say(const std::string& line) {
        asked.push_back(line);
        reach("log line");
    }
    void hear(const std::string& method, const Results& object) {
        const Contents contents = object ? contentsOf(*object) : Contents();
        calls.emplace_back(method, contents);
        if (object) given.emplace_back(object, contents);
        reach("delegate call");
    }
};

class CaptureModel : public DrivenCapture {
public:
    CaptureModel(int serviceLevel, Size screenSize) : level(serviceLevel) { geometry.setScreen(screenSize); }

    CaptureModel* operator->() { return this; }

    // What the analyzer shows.

    bool spent = false, selection = false, smileTest = false, skip = false, select = false, manualOnly = false,
         holdStill = false, startCountdown = true, inProgress = false, motionRuns = false;
    std::int64_t smileStatus = 0;
    std::uint32_t exif = 0;
    std::deque<Mark> history;
    Results results = std::make_shared<SelvioFacialCaptureResults>();
    rules::PreviewGeometry geometry;
    rules::FaceChecksResult face;
    const std::shared_ptr<SelvioFacialCaptureUxpEventManager> log = SelvioFacialCaptureUxpEventManager::init(clock());

    // Control operations.

    void setDelegate(const std::optional<Methods>& methods) {
        if (spent) return;
        delegate = methods;
        if (!methods || level >= 12) return;
        manualOnly = true;
        parameters->setMode(1);
        tell("manualOnly", nullptr);
    }
    void updateMode(std::int64_t mode) {
        if (results) parameters->setMode(mode);  // they are there until the cancellation has been told
    }
    void pauseFor(std::int64_t reason) {
        if (spent) return;
        skip = startCountdown = true;
        if (reason >= 1 && reason <= 4) addEvent(std::array{2, 3, 5, 4}[static_cast<std::size_t>(reason - 1)]);
        motionRuns = false;
    }
    void resume() {
        if (spent) return;
        beginRun();
        skip = smileTest = selection = select = false;
        addEvent(isAutomatic() ? 0 : 1);
        motionRuns = true;
        record->addParameters(parameters->toDictionary());
    }
    void selectFrame() { select = true; }
    void stop() {
        ++run;
        spent = true;
        results = nullptr;
        history.clear();
        log->clear();
        motionRuns = false;
    }
    void cancel() {
        if (spent) return;
        ++run;
        spent = true;
        const Results cancelled = results->withoutSelection();
        enterRecord(*cancelled, SelvioFacialCaptureResultCodeCancelled, 8);
        cancelled->setObixDataString(record->obixDataString());
        tell("cancelled", cancelled);
        stop();
    }
    void rotate(RotationRate rate) {
        if (motionRuns) holdStill = std::max({std::fabs(rate.x), std::fabs(rate.y), std::fabs(rate.z)}) > 0.1;
    }

    // A frame's way.

    void analyzeSampleBuffer(const Frame& frame) {
        if (spent || inProgress) return;
        inProgress = true;
        if (frame.picture == Frame::Unreadable) say("RBGBuffereCopyWithPixelBuffer :: failed");
        analysisQueue->async([this, frame] {
            if (!spent && frame.picture == Frame::Readable) analyze(frame);
            inProgress = analysisQueue->size() > 0;
        });
    }
    void analyzeImageAtPath(const std::optional<Frame>& picture) {
        if (spent || level < 12) return;
        if (!picture) return say("missing.jpg: no such file");
        geometry.setScreen(picture->size);
        geometry.setResolution(picture->size);
        keep(picture->mark, 5);
        detect(5, {Plain, run, nullptr, picture->mark});
    }

private:
    /// What the main queue is to do with a frame. Reports come first.
    enum Delivery { Plain, Judged, CountdownStatus, Countdown, Automatic, Manual, Success };
    /// What travels with a frame.
    struct Step {
        Delivery delivery;
        int run;
        Results results;
        Mark mark;
        Step as(Delivery other) const { return {other, run, results, mark}; }
    };

    bool isAutomatic() const { return parameters->mode() == 2; }
    bool hears(const std::string& method) const { return delegate && delegate->contains(method); }
    void tell(const std::string& method, const Results& object) {
        if (hears(method)) hear(method, object);
    }
    void addEvent(int event) { log->addEvent(static_cast<SelvioFacialCaptureUxpEvent>(event)); }
    void setStatuses(const Results& object, const Statuses& statuses) {
        object->setOrderedStatuses(statuses);
        for (const auto status : statuses) log->addEvent(rules::eventFor(status));
    }
    void keep(Mark mark, std::size_t limit) {
        history.push_back(mark);
        while (history.size() > limit) history.pop_front();
    }

    void analyze(const Frame& frame) {
        Step step{Plain, run, nullptr, frame.mark};
        keep(frame.mark, selection ? 28 : 14);
        if ((manualOnly || !isAutomatic()) && select && !selection && hears("success")) {
            step.run = beginSelection();
            step.results = results = results->withoutSelection();
            return wait(step.as(Manual));
        }
        if (level < 12 || selection || skip || smileTest || manualOnly) return;
        step.results = results = std::make_shared<SelvioFacialCaptureResults>();
        setStatuses(results, {});
        if (geometry.resolution == Size{}) {
            geometry.setResolution(frame.size);
            if (frame.size.width > frame.size.height)
                say("Frames of 18 x 10 pixels lie on their side: the checks read upright portrait frames, and no face "
                    "will pass them");
        }
        exif = rules::exifOrientationFor(device->orientation());
        detect(exif, step);
    }
    /// A step without results is a still image's.
    void detect(std::uint32_t orientation, Step step) {
        const bool still = step.results == nullptr;
        if (!ask("request", step.mark, orientation, level >= 13 ? 3 : 2))
            return say(std::string(still ? "A still image" : "A frame") + " could not be analysed: not enough memory");
        if (world.handlerError) return say("SequenceRequestHandler couldn't perform requests: no model");
        if (!still) inProgress = false;
        if (step.run != run || selection || skip || smileTest) return;
        const auto found = world.faces;
        if (still) step.results = results = results->withoutSelection();
        if (world.requestError) say("Detect face request error: blurred");
        const auto judged = rules::judgeFaces(found, geometry, rules::limitsOf(*parameters), holdStill);
        const auto& seen = found.empty() ? std::nullopt : found.front().landmarks;
        if (judged.face && !(seen && seen->nose) && !std::exchange(saidOddPoints, true))
            say(std::string("A face came with ") +
                (seen ? "17 points of its contour, 0 of the nose and 14"
                      : "0 points of its contour, 0 of the nose and 0") +
                " of the lips: the checks read 17 (or 11), 9 and 14 (or 10), and a missing point as one at zero");
        setStatuses(step.results, judged.statuses);
        if (judged.face) {
            face = judged.face->checked;
            step.results->setFaceRect(judged.face->rect);
            step.results->setFaceContourPoints(judged.face->points.contour);
            step.results->setNosePoints(judged.face->points.nose);
            step.results->setOuterLipsPoints(judged.face->points.outerLips);
        }
        if (judged.statuses.empty()) return passGate(step);
        smileStatus = 0;
        startCountdown = true;
        wait(step.as(judged.face ? Judged : Plain));
    }
    void passGate(const Step& step) {
        if (step.run != run || selection || skip || smileTest) return;  // since a log line was heard
        if (parameters->selectOnSmile() || !isAutomatic()) {
            smileTest = true;
            globalQueue->async([this, step] {
                if (step.run == run) testSmile(step);
            });
        } else if (select || parameters->countdownTime() <= 1) {
            wait(step.as(Automatic));
        } else {
            wait(step.as(std::exchange(startCountdown, false) ? Countdown : CountdownStatus));
        }
    }
    void testSmile(const Step& step) {
        if (!ask("smile test", step.mark)) {
            if (step.run == run) smileTest = false;
            return say("A smile could not be judged: not enough memory");
        }
        if (step.run != run) return;
        if (world.smilingFaces + world.otherFaces != 1) return void(smileTest = false);
        const bool smiling = world.smilingFaces == 1, manual = parameters->mode() == 1;
        if (smileStatus == 0) smileStatus = smiling ? 1 : 2;
        if (skip) return;
        const bool began = smileStatus == 1, askedToStop = smiling && (began || manual);
        setStatuses(step.results,
                    {askedToStop ? SelvioFacialCaptureStatusStopSmiling : SelvioFacialCaptureStatusGoodFrame});
        Step next = step.as(Judged);
        if (!manual && smiling != began) {  // it came, or went
            next = {Success, beginSelection(), step.results, smiling ? history.front() : history.back()};
            closeRecord(next, SelvioFacialCaptureResultCodeSuccessVideo);
        }
        wait(next);
        smileTest = false;
    }

    /// Of a run's reports of each kind only the newest waits, likewise of its announcements; of its automatic
    /// selections the first.
    void wait(const Step& step) {
        const auto takesItsPlace = [&](const Step& other) {
            return step.delivery <= Automatic && other.delivery == step.delivery && other.run == step.run;
        };
        if (step.delivery == Automatic && std::any_of(waiting.begin(), waiting.end(), takesItsPlace)) return;
        if (std::erase_if(waiting, takesItsPlace) == 0) mainQueue->async([this] { deliverFirst(); });
        waiting.push_back(step);
    }
    void deliverFirst() {
        const Step step = waiting.front();
        waiting.pop_front();
        if (step.run == run) deliver(step);
    }
    void deliver(const Step& step) {
        auto& object = *step.results;
        if (step.delivery == Countdown) return tell("countdown", nullptr);
        if (step.delivery == Success) return tell("success", step.results);
        if (step.delivery == Judged && select && hears("success"))
            return finish(step, SelvioFacialCaptureResultCodeSuccessStillCamera);
        if (step.delivery == Automatic) {
            object.setOrderedStatuses(Statuses{SelvioFacialCaptureStatusGoodFrame});
            return finish(step, SelvioFacialCaptureResultCodeSuccessVideo);
        }
        if (step.delivery == Manual) {
            if (manualOnly || object.orderedStatuses().value_or(Statuses()).empty())
                object.setOrderedStatuses(
                    Statuses{manualOnly ? SelvioFacialCaptureStatusNone : SelvioFacialCaptureStatusGoodFrame});
            return succeed(step, SelvioFacialCaptureResultCodeSuccessStillCamera);
        }
        if (step.delivery == CountdownStatus) setStatuses(step.results, {SelvioFacialCaptureStatusCountdown});
        tell("results", step.results);
    }

    int beginSelection() {
        selection = true;
        return beginRun();
    }
    /// What was not announced yet will have to be.
    int beginRun() {
        for (const Step& step : waiting) startCountdown |= step.delivery == Countdown;
        return ++run;
    }
    void finish(const Step& step, SelvioFacialCaptureResultCode code) {
        succeed({Success, beginSelection(), step.results, step.mark}, code);
    }
    void succeed(const Step& step, SelvioFacialCaptureResultCode code) {
        closeRecord(step, code);
        if (step.run == run) tell("success", step.results);
    }
    void closeRecord(const Step& step, SelvioFacialCaptureResultCode code) {
        const Image image{pictureOf({step.mark})};
        step.results->setSelectedImage(image);
        record->add({{"Autocapture", isAutomatic() ? "1" : "0"}});
        enterRecord(*step.results, code, isAutomatic() ? 6 : 7);
        try {
            const auto quality = static_cast<double>(parameters->imageQuality());
            step.results->setEncodedSelectedImage(record->addToImage(image, quality));
        } catch (const std::bad_alloc&) {
            say("The selected image could not be encoded: not enough memory");
        }
        step.results->setObixDataString(record->obixDataString());
    }

    void enterRecord(SelvioFacialCaptureResults& object, SelvioFacialCaptureResultCode code, int event) {
        addEvent(event);
        record->addUXP(log->events());
        record->add({{"SelvioResultCode", *object.stringFrom(code)}});
        object.setResultCode(code);
    }

    const int level;
    int run = 0;
    bool saidOddPoints = false;
    std::optional<Methods> delegate;
    std::deque<Step> waiting;  // for the main queue
    const std::shared_ptr<SelvioFacialCaptureObixData> record = SelvioFacialCaptureObixData::init(platform());
};

/// The analyzer, driven like the model.
class RealCapture : public DrivenCapture {
public:
    RealCapture(int serviceLevel, Size screenSize) {
        screen = screenSize;
        SelvioFacialCaptureUxpEventManager::setSharedClock(clock());
        SelvioFacialCaptureUxpEventManager::destroySharedInstance();
        (void)SelvioFacialCaptureUxpEventManager::sharedInstance();
        Platform ports = platform();
        ports.serviceLevel = serviceLevel;
        makeAnalyzer(ports);
        vision->setAnswer([this](const FaceLandmarksRequest& asked) -> Expected<FaceLandmarksResult> {
            insist("request", markOf(asked.pixelBuffer), asked.exifOrientation, asked.revision);
            if (world.handlerError) return *world.handlerError;
            return FaceLandmarksResult{world.faces, world.requestError};
        });
        smiles->setAnswer([this](const Image& image, bool smile) {
            insist("smile test", markOf(image.bitmap));
            const auto count =
                static_cast<std::size_t>(world.smilingFaces) + static_cast<std::size_t>(world.otherFaces);
            return std::vector(count, FaceFeature{.bounds = {}, .hasSmile = smile && world.smilingFaces > 0});
        });
        sink_ = setLogSink([this](std::string_view line) { say(std::string(line)); });
    }
    ~RealCapture() override {
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
        world_.requestError = error("blurred");
        world_.handlerError = error("no model");
        world_.outOfMemory = oneIn(6);
        const int orientation = below(8) - 1, codec = oneIn(3) ? below(4) : 0;
        return {"world", [=, next = world_](auto& c) {
                    c.world = next;
                    c.device->setOrientation(static_cast<DeviceOrientation>(orientation));
                    c.codec->failsAt = codec;
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
        world_.faces = oneIn(30) ? std::vector<FaceObservation>() : faces();
        if (oneIn(3)) world_.smilingFaces = below(2);
        world_.otherFaces = oneIn(10) ? below(3) : 1 - world_.smilingFaces;
        return {text + (world_.smilingFaces > 0 ? ", smiling" : ""), [=, next = world_](auto& c) {
                    c.world = next;
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
    World world_;
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
