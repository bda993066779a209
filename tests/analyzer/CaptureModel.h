// One capture a second time, written on its own: what the analyzer is compared with. Everything happens when it is
// called; what the analyzer submits to a queue waits here in a list that the test runs in step with that queue. The
// checks of a face, the data record and the event log are the component's: they have tests of their own.
#pragma once

#include <SelvioFacialCapture/rules/FaceChecks.h>

#include <cmath>
#include <cstring>
#include <deque>
#include <nlohmann/json.hpp>
#include <set>

#include "analyzer/AnalyzerFixture.h"
#include "analyzer/rules/DeviceOrientation.h"
#include "analyzer/rules/StatusEvents.h"

namespace selvio::reference {

using Mark = int;  ///< which frame; written into its pixels
using Results = std::shared_ptr<SelvioFacialCaptureResults>;
using Statuses = std::vector<SelvioFacialCaptureStatus>;

struct Frame {
    Mark mark = 0;
    Size size{9, 16};
    enum Picture { Readable, Unreadable, None } picture = Readable;
};

inline std::shared_ptr<PixelBuffer> pictureOf(const Frame& frame) {
    const PixelFormat format = frame.mark % 2 == 0 ? kPixelFormat32BGRA : kPixelFormat420v;
    auto picture = PixelBuffer::create(static_cast<int>(frame.size.width), static_cast<int>(frame.size.height), format);
    std::memcpy(picture->data(), &frame.mark, sizeof frame.mark);
    return picture;
}
inline Mark markOf(const std::shared_ptr<const PixelBuffer>& picture) {
    Mark mark = 0;
    if (picture) std::memcpy(&mark, picture->data(), sizeof mark);
    return mark;
}

inline auto contentsOf(const SelvioFacialCaptureResults& results) {
    return std::tuple(results.orderedStatuses(), results.highestPriorityStatus(), results.resultCode(),
                      markOf(results.selectedImage().value_or(Image()).bitmap), results.encodedSelectedImage(),
                      results.obixDataString(), results.faceRect(), results.faceContourPoints(), results.nosePoints(),
                      results.outerLipsPoints());
}
using Contents = decltype(contentsOf(SelvioFacialCaptureResults()));

using Methods = std::set<std::string>;

/// A capture whose ports and host answer as the test says and write down what they are asked and told.
class DrivenCapture : public ManualAnalyzer, public Clock {
public:
    DrivenCapture() {
        codec->duringEncoding = [this](const Image& image) { insist("encoding", markOf(image.bitmap)); };
    }
    std::vector<FaceObservation> faces;
    std::optional<Error> requestError, handlerError;
    int smilingFaces = 0, otherFaces = 1;  ///< what the smile test sees
    bool outOfMemory = false;              ///< in the detectors and the codec
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
        return !outOfMemory;
    }
    void insist(const auto&... question) {
        if (!ask(question...)) throw std::bad_alloc();
    }
    /// The beginning of the line is enough to know it by.
    void say(const std::string& line) {
        asked.push_back(line.substr(0, 20));
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
        ++run;
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
            if (frame.size.width > frame.size.height) say("Frames of 18 x 10 pixels lie on their side");
        }
        exif = rules::exifOrientationFor(device->orientation());
        detect(exif, step);
    }
    /// A step without results is a still image's.
    void detect(std::uint32_t orientation, Step step) {
        const bool still = step.results == nullptr;
        if (!ask("request", step.mark, orientation, level >= 13 ? 3 : 2))
            return say(still ? "A still image could not be analysed" : "A frame could not be analysed");
        if (handlerError) return say("SequenceRequestHandler couldn't perform requests");
        if (!still) inProgress = false;
        if (step.run != run || selection || skip || smileTest) return;
        const auto found = faces;
        if (still) step.results = results = results->withoutSelection();
        if (requestError) say("Detect face request error");
        const auto judged = rules::judgeFaces(found, geometry, rules::limitsOf(*parameters), holdStill);
        const auto& seen = found.empty() ? std::nullopt : found.front().landmarks;
        if (judged.face && !(seen && seen->nose) && !std::exchange(saidOddPoints, true))
            say(seen ? "A face came with 17 points" : "A face came with 0 points");
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
            return say("A smile could not be judged");
        }
        if (step.run != run) return;
        if (smilingFaces + otherFaces != 1) return void(smileTest = false);
        const bool smiling = smilingFaces == 1, manual = parameters->mode() == 1;
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

    /// Of reports only the newest waits, likewise of announcements; of automatic selections a run's first.
    void wait(const Step& step) {
        const auto takesItsPlace = [&](const Step& other) {
            if (step.delivery <= CountdownStatus) return other.delivery <= CountdownStatus;
            if (step.delivery == Automatic) return other.delivery == Automatic && other.run == step.run;
            return step.delivery == Countdown && other.delivery == Countdown;
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
            say("The selected image could not be encoded");
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

}  // namespace selvio::reference
