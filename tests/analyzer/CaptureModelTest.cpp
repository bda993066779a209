// The analyzer and a model of it through the same hundreds of random captures.
//
// The model is one capture a second time, written on its own. Everything happens when it is called; what the analyzer
// submits to a queue waits there in a list that the test runs as it runs that queue. The checks of a face, the data
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
using Picture = std::shared_ptr<PixelBuffer>;
using UxpEvents = SelvioFacialCaptureUxpEventManager;
using Results = std::shared_ptr<SelvioFacialCaptureResults>;
using Statuses = std::vector<SelvioFacialCaptureStatus>;
using Methods = std::set<std::string>;

Picture pictureOf(Mark mark, Size size = {9, 16}) {
    auto picture = PixelBuffer::create(static_cast<int>(size.width), static_cast<int>(size.height),
                                       mark % 2 == 0 ? kPixelFormat32BGRA : kPixelFormat420v);
    std::memcpy(picture->data(), &mark, sizeof mark);
    return picture;
}
Size sizeOf(const PixelBuffer& picture) {
    return {static_cast<double>(picture.width()), static_cast<double>(picture.height())};
}
Mark markOf(const std::shared_ptr<const PixelBuffer>& picture) {
    Mark mark = 0;
    if (picture) std::memcpy(&mark, picture->data(), sizeof mark);
    return mark;
}

auto contentsOf(const Results& object) {
    static const SelvioFacialCaptureResults kNone;
    const auto& results = object ? *object : kNone;
    return std::tuple(results.orderedStatuses(), results.highestPriorityStatus(), results.resultCode(),
                      markOf(results.selectedImage().value_or(Image()).bitmap), results.encodedSelectedImage(),
                      results.obixDataString(), results.faceRect(), results.faceContourPoints(), results.nosePoints(),
                      results.outerLipsPoints());
}
using Contents = decltype(contentsOf(Results()));

/// A capture whose ports and host answer as the test says and write down what they are asked and told.
class DrivenCapture : public ManualAnalyzer {
public:
    DrivenCapture(int level, Size screenSize) {
        serviceLevel = level;
        screen = screenSize;
        codec->duringEncoding = [this](const Image& image) { insist("encoding", markOf(image.bitmap)); };
    }
    /// What the ports answer.
    struct {
        std::vector<FaceObservation> faces = {};
        std::optional<Error> requestError = {}, handlerError = {};
        int smilingFaces = 0, otherFaces = 1;  ///< what the smile test sees
        bool outOfMemory = false;              ///< in the detectors and the codec
    } world;
    const std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::map<std::string, std::function<void()>> during;  ///< called once, at that place
    std::vector<std::pair<std::string, Contents>> noted;  ///< with what the delegate was given
    std::vector<std::pair<Results, Contents>> given;      ///< to the delegate, and what it held at that time

    void note(const std::string& what, const std::string& place = "", const Results& object = nullptr) {
        noted.emplace_back(what, contentsOf(object));
        if (const auto once = std::exchange(during[place], nullptr)) once();
    }
    void settle() {
        while (analysisQueue->runNext() || globalQueue->runNext() || mainQueue->runNext()) {
        }
    }

protected:
    auto blocks() const { return std::array{analysisQueue->size(), globalQueue->size(), mainQueue->size()}; }
    /// Objects count in the order in which they are first seen.
    std::size_t number(const Results& object) { return numbers_.try_emplace(object, numbers_.size()).first->second; }
    /// False if there is not enough memory for the answer.
    bool ask(const std::string& port, Mark mark, std::uint32_t orientation = 0, int revision = 0) {
        note(::testing::PrintToString(std::tuple(port, mark, orientation, revision)), port);
        return !world.outOfMemory;
    }
    void insist(const auto&... question) {
        if (!ask(question...)) throw std::bad_alloc();
    }
    void say(const std::string& line) { note(line, "log line"); }
    void hear(const std::string& method, const Results& object) {
        if (object) given.emplace_back(object, contentsOf(object));
        note(method + " " + std::to_string(number(object)), "delegate call", object);
    }

private:
    std::map<Results, std::size_t> numbers_;
};

class CaptureModel : public DrivenCapture {
public:
    CaptureModel(int level, Size screenSize) : DrivenCapture(level, screenSize) { geometry.setScreen(screen); }

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
    const std::shared_ptr<UxpEvents> log = UxpEvents::init(clock);

    auto shown() {
        const auto& g = geometry;
        return std::pair(
            std::tuple(blocks(), history, parameters->mode(), log->events(), inProgress, motionRuns),
            spent ? std::nullopt
                  : std::optional(std::tuple(selection, smileTest, skip, select, manualOnly, holdStill, startCountdown,
                                             smileStatus, exif, g.resolution, g.biggerScreenSide, g.smallerScreenSide,
                                             g.biggerPreviewSide, g.smallerPreviewSide, g.wAdjuster, g.hAdjuster,
                                             g.xAdjuster, g.yAdjuster, face.measures.horizontalFill, face.noseMiddle,
                                             face.lipLeft, face.lipRight, number(results), contentsOf(results))));
    }

    // Control operations.

    void setDelegate(const std::optional<Methods>& methods) {
        if (spent) return;
        delegate = methods;
        if (!methods || serviceLevel >= 12) return;
        manualOnly = true;
        parameters->setMode(1);
        tell("manualOnly", nullptr);
    }
    void updateMode(std::int64_t mode) {
        if (results) parameters->setMode(mode);  // they are there until the cancellation has been told
    }
    void pause() { pauseFor(0); }
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

    /// Without pixels it is unreadable.
    void analyzeSampleBuffer(const Picture& picture) {
        if (spent || inProgress) return;
        inProgress = true;
        if (picture && picture->width() == 0) say("RBGBuffereCopyWithPixelBuffer :: failed");
        analysisQueue->async([this, picture] {
            if (!spent && picture && picture->width() > 0) analyze(picture);
            inProgress = analysisQueue->size() > 0;
        });
    }
    void analyzeStill(const Picture& picture) {
        if (spent || serviceLevel < 12) return;
        if (!picture) return say("still.jpg: no such file");
        geometry.setScreen(sizeOf(*picture));
        geometry.setResolution(sizeOf(*picture));
        keep(markOf(picture), 5);
        detect(5, {Plain, run, nullptr, markOf(picture)});
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
    void setStatuses(const Step& step, const Statuses& statuses) {
        step.results->setOrderedStatuses(statuses);
        for (const auto status : statuses)
            if (step.run == run) log->addEvent(rules::eventFor(status));
    }
    void keep(Mark mark, std::size_t limit) {
        history.push_back(mark);
        while (history.size() > limit) history.pop_front();
    }

    void analyze(const Picture& picture) {
        Step step{Plain, run, nullptr, markOf(picture)};
        keep(step.mark, selection ? 28 : 14);
        if ((manualOnly || !isAutomatic()) && select && !selection && hears("success")) {
            step.results = results->withoutSelection();
            step.run = beginSelection(step.results);
            return wait(step.as(Manual));
        }
        if (serviceLevel < 12 || selection || skip || smileTest || manualOnly) return;
        step.results = results = std::make_shared<SelvioFacialCaptureResults>();
        setStatuses(step, {});
        if (geometry.resolution == Size{}) {
            geometry.setResolution(sizeOf(*picture));
            if (picture->width() > picture->height())
                say("Frames of 18 x 10 pixels lie on their side: the checks read upright portrait frames, and no face "
                    "will pass them");
        }
        exif = rules::exifOrientationFor(device->orientation());
        detect(exif, step);
    }
    /// A step without results is a still image's.
    void detect(std::uint32_t orientation, Step step) {
        const bool still = step.results == nullptr;
        if (!ask("request", step.mark, orientation, serviceLevel >= 13 ? 3 : 2))
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
        setStatuses(step, judged.statuses);
        if (judged.face) {
            face = judged.face->checked;
            step.results->setFaceRect(judged.face->rect);
            step.results->setFaceContourPoints(judged.face->points.contour);
            step.results->setNosePoints(judged.face->points.nose);
            step.results->setOuterLipsPoints(judged.face->points.outerLips);
        }
        if (step.run != run) return;  // since a log line was heard
        if (judged.statuses.empty()) return passGate(step);
        smileStatus = 0;
        startCountdown = true;
        wait(step.as(judged.face ? Judged : Plain));
    }
    void passGate(const Step& step) {
        if (selection || skip || smileTest) return;
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
        setStatuses(step, {askedToStop ? SelvioFacialCaptureStatusStopSmiling : SelvioFacialCaptureStatusGoodFrame});
        Step next = step.as(Judged);
        if (!manual && smiling != began) {  // it came, or went
            next = {Success, beginSelection(step.results), step.results, smiling ? history.front() : history.back()};
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
        const bool replaces = std::erase_if(waiting, takesItsPlace) > 0;
        waiting.push_back(step);
        if (replaces) return;
        mainQueue->async([this] {
            const Step first = waiting.front();
            waiting.pop_front();
            if (first.run == run) deliver(first);
        });
    }
    void deliver(const Step& step) {
        if (step.delivery == Countdown) return tell("countdown", nullptr);
        if (step.delivery == Success) return tell("success", step.results);
        auto& object = *step.results;
        const bool automatic = step.delivery == Automatic, manual = step.delivery == Manual;
        if (manual && manualOnly)
            object.setOrderedStatuses(Statuses{SelvioFacialCaptureStatusNone});
        else if (automatic || (manual && object.orderedStatuses().value_or(Statuses()).empty()))
            object.setOrderedStatuses(Statuses{SelvioFacialCaptureStatusGoodFrame});
        if (automatic || manual || (step.delivery == Judged && select && hears("success")))
            return succeed(step, automatic ? SelvioFacialCaptureResultCodeSuccessVideo
                                           : SelvioFacialCaptureResultCodeSuccessStillCamera);
        if (step.delivery == CountdownStatus) setStatuses(step, {SelvioFacialCaptureStatusCountdown});
        tell("results", step.results);
    }

    int beginSelection(const Results& selected) {
        selection = true;
        results = selected;
        return beginRun();
    }
    /// What was not announced yet will have to be.
    int beginRun() {
        for (const Step& step : waiting) startCountdown |= step.delivery == Countdown;
        return ++run;
    }
    void succeed(Step step, SelvioFacialCaptureResultCode code) {
        if (step.delivery != Manual) step.run = beginSelection(step.results);
        closeRecord(step, code);
        if (step.run == run) tell("success", step.results);
    }
    void closeRecord(const Step& step, SelvioFacialCaptureResultCode code) {
        const Image image{pictureOf(step.mark)};
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

    int run = 0;
    bool saidOddPoints = false;
    std::optional<Methods> delegate;
    std::deque<Step> waiting;  // for the main queue
    const std::shared_ptr<SelvioFacialCaptureObixData> record = SelvioFacialCaptureObixData::init(platform());
};

/// The analyzer, driven like the model.
class RealCapture : public DrivenCapture {
public:
    RealCapture(int level, Size screenSize) : DrivenCapture(level, screenSize) {
        UxpEvents::setSharedClock(clock);
        UxpEvents::destroySharedInstance();
        (void)UxpEvents::sharedInstance();
        makeAnalyzer(platform());
        vision->setAnswer([this](const FaceLandmarksRequest& asked) -> Expected<FaceLandmarksResult> {
            insist("request", markOf(asked.pixelBuffer), asked.exifOrientation, asked.revision);
            if (world.handlerError) return *world.handlerError;
            return FaceLandmarksResult{world.faces, world.requestError};
        });
        smiles->setAnswer([this](const Image& image, bool smile) {
            insist("smile test", markOf(image.bitmap));
            const FaceFeature face{.bounds = {}, .hasSmile = smile && world.smilingFaces > 0};
            return std::vector(static_cast<std::size_t>(world.smilingFaces + world.otherFaces), face);
        });
    }
    ~RealCapture() {
        during = {{"delegate call", [] { ADD_FAILURE() << "told after the host has let go"; }}};
        analyzer.reset();
        settle();
        EXPECT_FALSE(motion->isRunning());
        for (const auto& [object, contents] : given) EXPECT_EQ(contentsOf(object), contents) << "changed afterwards";
        setLogSink(sink_);
        UxpEvents::setSharedClock(nullptr);
        UxpEvents::destroySharedInstance();
    }

    auto shown() {
        const auto& a = *analyzer;
        std::deque<Mark> history;
        for (const Image& image : a.imagesArray()) history.push_back(markOf(image.bitmap));
        return std::pair(
            std::tuple(blocks(), history, parameters->mode(), UxpEvents::sharedInstance()->events(), a.inProgress(),
                       motion->isRunning()),
            !a.results() && !a.parameters()
                ? std::nullopt
                : std::optional(std::tuple(a.selectionInProgress(), a.smileDetectionInProgress(), a.shouldSkipFrames(),
                                           a.shouldSelectCurrentFrame(), a.manualOnly(), a.shouldHoldStill(),
                                           a.shouldStartCountdown(), a.smileStatus(), a.exifOrientation(),
                                           a.resolution(), a.biggerScreenSide(), a.smallerScreenSide(),
                                           a.biggerPreviewSide(), a.smallerPreviewSide(), a.wAdjuster(), a.hAdjuster(),
                                           a.xAdjuster(), a.yAdjuster(), a.faceHorizontalFill(), a.noseMiddle(),
                                           a.lipLeft(), a.lipRight(), number(a.results()), contentsOf(a.results()))));
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
    void analyzeSampleBuffer(const Picture& picture) {
        analyzer->analyzeSampleBuffer(SampleBuffer::makeVideo(picture));
    }
    void analyzeStill(const Picture& picture) {
        loader->picture = picture;
        analyzer->analyzeImageAtPath("still.jpg");
    }

private:
    std::vector<std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate>> delegates_;
    const LogSink sink_ = setLogSink([this](std::string_view line) { say(std::string(line)); });
};

const Methods kAllMethods{"results", "countdown", "success", "cancelled", "manualOnly"};

/// One random capture.
template <typename Capture>
class Scenario {
public:
    explicit Scenario(unsigned seed)
        : random_(seed),
          capture_{oneIn(10) ? 10 + below(3) : 13, oneIn(5) ? Size{375, 812} : Size{1000, 1700}},
          frameSize_(oneIn(5) ? (oneIn(2) ? Size{9, 16} : Size{18, 10}) : Size{10, 17}) {
        capture_.setDelegate(kAllMethods);
        for (const int which : {0, 1, 2})
            if (oneIn(2)) setParameter(which);
        for (int afterEnd = 0; trace.size() < 60 && afterEnd < 5;) {
            step();
            trace.emplace_back(std::exchange(capture_.noted, {}), capture_.shown());
            if (!trace.back().second.second) ++afterEnd;
        }
    }
    /// What was noted during each step, and what the capture showed after it.
    std::vector<std::pair<decltype(Capture::noted), decltype(std::declval<Capture>().shown())>> trace;

private:
    int below(int n) { return std::uniform_int_distribution(0, n - 1)(random_); }
    bool oneIn(int n) { return below(n) == 0; }
    void step() {
        auto& c = capture_;
        const int n = below(100);
        if (n < 26) return frame();
        if (n < 43) return c.note("analysis"), void(c.analysisQueue->runNext());
        if (n < 49) return c.note("global"), void(c.globalQueue->runNext());
        if (n < 57) return c.note("main"), void(c.mainQueue->runNext());
        if (n < 69) return c.note("settle"), c.settle();
        if (n < 73) return still();
        if (n < 80) return arm();
        control();
    }
    void control() {
        auto& c = capture_;
        const int n = below(32);
        if (n < 8) return c.note("resume"), c->resume();
        if (n < 14) return c.note("selectFrame"), c->selectFrame();
        if (n == 14) return c.note("stop"), c->stop();
        if (n == 15) return c.note("cancel"), c->cancel();
        if (n < 20) {
            std::optional<Methods> methods = kAllMethods;
            if (oneIn(3)) std::erase_if(*methods, [this](const auto&) { return oneIn(2); });
            if (oneIn(8)) methods.reset();
            return c.note("delegate for " + ::testing::PrintToString(methods)), c.setDelegate(methods);
        }
        if (n == 20) return c.note("pause"), c->pause();
        if (n < 24) return c.note("pauseFor"), c->pauseFor(below(7) - 1);
        if (n >= 26) return setParameter(below(4));
        const auto rate = [this] { return (0.1 + 0.01 * below(2)) * (below(3) - 1); };  // at the limit, or beyond it
        c.note("motion");
        c.rotate({rate(), rate(), rate()});
    }
    void setParameter(int which) {
        const int value = below(4), fill = below(150);
        capture_.note("parameter " + ::testing::PrintToString(std::tuple(which, value, fill)));
        auto& parameters = *capture_.parameters;
        if (which == 0) return capture_->updateMode(value);
        if (which == 1) return parameters.setCountdownTime(value);
        if (which == 2) return parameters.setSelectOnSmile(value > 1);
        parameters.setRoll(fill * 6);
        parameters.setMinFill(500 + fill);
        parameters.setMaxFill(650 + fill);
        parameters.setImageQuality(fill);
    }
    /// The next time that something foreign is called, it calls an operation of the analyzer.
    void arm() {
        const char* const places[] = {"log line", "request", "smile test", "encoding", "delegate call"};
        const std::string place = places[below(5)];
        capture_.note("during the next " + place);
        capture_.during[place] = [this, place] { oneIn(4) ? frame() : control(); };
    }
    std::vector<FaceObservation> faces() {
        ScreenFace face;
        face.left.x += below(61) - 30;
        double* const numbers[] = {&face.left.x, &face.left.y, &face.noseLeft, &face.chin};
        const double wrong[] = {350, 500, 400, 1000};
        if (const int fault = below(16); fault < 4) *numbers[fault] = wrong[fault];
        FaceObservation seen = face.observation();
        if (oneIn(20)) seen.landmarks->nose.reset();
        if (oneIn(40)) seen.landmarks.reset();
        if (oneIn(20)) seen.boundingBox = {0.1, 0.2, 0.7, 0.6};
        return std::vector(static_cast<std::size_t>(oneIn(10) ? below(4) : 1), seen);
    }
    void see(const std::string& text) {
        auto& world = capture_.world;
        if (oneIn(5)) {
            const auto error = [&](const char* what) { return oneIn(6) ? std::optional(Error{what}) : std::nullopt; };
            world.requestError = error("blurred");
            world.handlerError = error("no model");
            world.outOfMemory = oneIn(6);
            capture_.codec->failsAt = oneIn(3) ? below(4) : 0;
            capture_.device->setOrientation(static_cast<DeviceOrientation>(below(8) - 1));
        }
        world.faces = oneIn(30) ? std::vector<FaceObservation>() : faces();
        if (oneIn(3)) world.smilingFaces = below(2);
        world.otherFaces = oneIn(10) ? below(3) : 1 - world.smilingFaces;
        capture_.clock->advance(std::chrono::microseconds(333 * below(400)));
        capture_.note(text + (world.smilingFaces > 0 ? ", smiling" : ""));
    }
    void frame() {
        const Size size = oneIn(30) ? Size{12, 16} : frameSize_;
        const int kind = oneIn(40) ? below(3) : 2;
        see("frame");
        for (int left = oneIn(30) ? 20 : 1; left > 0; --left) {
            capture_.analyzeSampleBuffer(kind == 0   ? nullptr
                                         : kind == 1 ? PixelBuffer::wrap({.width = 0, .height = 0}, {}, {})
                                                     : pictureOf(++mark_, size));
            if (left > 1) capture_.analysisQueue->runNext();
        }
    }
    void still() {
        const auto side = [this] { return static_cast<double>(10 * (1 + below(20))); };
        see("still");
        capture_.analyzeStill(oneIn(6) ? nullptr : pictureOf(++mark_, oneIn(2) ? frameSize_ : Size{side(), side()}));
    }

    std::mt19937 random_;
    Capture capture_;
    const Size frameSize_;
    Mark mark_ = 0;
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
        const auto is = Scenario<RealCapture>(seed).trace, right = Scenario<CaptureModel>(seed).trace;
        std::string before;
        for (std::size_t i = 0; i < right.size() && !HasFailure(); ++i) {
            for (const auto& each : right[i].first) before += "\n    " + each.first;
            EXPECT_EQ(is.at(i), right[i]) << "after:" << before;
        }
    }
}

}  // namespace
}  // namespace selvio
