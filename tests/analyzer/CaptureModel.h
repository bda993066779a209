// One capture a second time, written on its own: what the analyzer is compared with. Everything happens when it is
// called; what the analyzer submits to a queue waits here in a list that the test runs in step with that queue.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>
#include <SelvioFacialCapture/platform/MotionManager.h>
#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>

#include "analyzer/FaceReference.h"

namespace selvio::reference {

using Mark = int;  ///< which frame; written into its pixels

/// What a results object holds.
struct Results {
    std::optional<std::vector<std::int64_t>> statuses;
    std::int64_t highest = 0;
    std::int64_t code = 0;
    std::optional<Mark> image;
    std::optional<std::string> encoded;  ///< how, and the record in it
    std::optional<std::string> record;
    Rect faceRect;
    Points contour, nose, lips;

    void setStatuses(std::vector<std::int64_t> list) {
        if (!list.empty()) highest = list.front();
        statuses = std::move(list);
    }
    /// A new object with what is known of the frame.
    [[nodiscard]] std::shared_ptr<Results> withoutSelection() const {
        auto copy = std::make_shared<Results>(*this);
        copy->code = 0;
        copy->image.reset();
        copy->encoded.reset();
        copy->record.reset();
        return copy;
    }
    friend bool operator==(const Results&, const Results&) = default;
    friend void PrintTo(const Results& r, std::ostream* out) {
        *out << "statuses " << ::testing::PrintToString(r.statuses) << " highest " << r.highest << " code " << r.code
             << " image " << r.image.value_or(-1) << ' ' << r.encoded.value_or("") << " record "
             << r.record.value_or("");
    }
};

/// A delegate call.
struct Call {
    std::string method;
    std::shared_ptr<const void> object;  ///< the results; null for a call without
    Results then;                        ///< what they held at that time
};

enum Method { kResults = 1, kCountdown = 2, kSuccess = 4, kCancelled = 8, kManualOnly = 16 };

/// A frame, or a still image.
struct Frame {
    Mark mark = 0;
    Size size{};
    bool hasPicture = true;
};

/// What the ports answer. The hooks are called once, where a port or the host is called.
struct World {
    std::vector<FaceObservation> faces;
    std::optional<Error> requestError, handlerError;
    std::int64_t orientation = 1;
    int smilingFaces = 0, otherFaces = 1;  ///< what the smile test sees
    int codecFailsAt = 0;                  ///< 1, 2, 3: at that step
    bool throws = false;                   ///< detectors and codec run out of memory
    double time = 0;
    std::function<void()> duringRequest, duringTest, duringEncoding, duringCall, duringLogging;
};

inline void fire(std::function<void()>& hook) {
    if (const auto once = std::exchange(hook, nullptr)) once();
}

class CaptureModel {
public:
    CaptureModel(int serviceLevel, Size screenSize, nlohmann::json newRecord)
        : record(std::move(newRecord)), level(serviceLevel) {
        screen.show(screenSize);
    }

    World world;
    const std::shared_ptr<SelvioFacialCaptureParameters> parameters = std::make_shared<SelvioFacialCaptureParameters>();

    // What the analyzer shows.

    bool spent = false, selection = false, smileTest = false, skip = false, select = false, manualOnly = false,
         holdStill = false, startCountdown = true, inProgress = false, motionRuns = false;
    std::int64_t smileStatus = 0;
    std::uint32_t exif = 0;
    std::deque<Mark> history;
    std::shared_ptr<Results> results = std::make_shared<Results>();
    nlohmann::json record;
    nlohmann::json log = nlohmann::json::array();
    Screen screen;
    Point noseMiddle, lipLeft, lipRight;
    double fill = 0;
    std::vector<Call> calls;
    std::vector<std::string> logLines;
    std::vector<std::string> asked;  ///< of the ports: requests, smile tests, encodings
    std::deque<Frame> analysisQueue;
    std::size_t mainBlocks = 0;
    std::set<std::string> outcomes;  ///< which ends of a frame's way were seen

    // Control operations.

    void setDelegate(std::optional<int> methods) {
        if (spent) return;
        delegate = methods;
        if (!methods || level >= 12) return;
        manualOnly = true;
        parameters->setMode(1);
        tell(kManualOnly, "manualOnly", nullptr);
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
        addEvent(parameters->mode() == 2 ? 0 : 1);
        motionRuns = true;
        if (!record.contains("Parameters")) record["Parameters"] = parameters->toDictionary();
    }
    void selectFrame() {
        if (!spent) select = true;
    }
    void stop() {
        ++run;
        spent = true;
        results = nullptr;
        history.clear();
        log = nlohmann::json::array();
        motionRuns = false;
    }
    void cancel() {
        if (spent) return;
        ++run;
        spent = true;
        addEvent(8);
        record["UXP"] = log;
        record["SelvioResultCode"] = "Cancelled";
        const auto cancelled = results->withoutSelection();
        cancelled->record = record.dump();
        cancelled->code = 3;
        tell(kCancelled, "cancelled", cancelled);
        stop();
    }
    void rotate(RotationRate rate) {
        if (motionRuns) holdStill = std::fabs(rate.x) > 0.1 || std::fabs(rate.y) > 0.1 || std::fabs(rate.z) > 0.1;
    }

    // A frame's way.

    void analyzeSampleBuffer(const Frame& frame) {
        if (spent || inProgress) return;
        inProgress = true;
        analysisQueue.push_back(frame);
    }
    void runAnalysisBlock() {
        if (analysisQueue.empty()) return;
        const Frame frame = analysisQueue.front();
        analysisQueue.pop_front();
        if (spent || !frame.hasPicture) {
            inProgress = false;
            return;
        }
        const int frameRun = run;
        keep(frame.mark, selection ? 28 : 14);
        if ((manualOnly || parameters->mode() == 1) && select && !selection && hears(kSuccess)) {
            selection = true;
            results = results->withoutSelection();
            waiting.push_back({Item::Manual, ++run, results, frame.mark});
            ++mainBlocks;
        }
        if (level < 12 || selection || skip || smileTest || manualOnly) {
            inProgress = false;
            return;
        }
        results = std::make_shared<Results>();
        results->setStatuses({});
        if (screen.resolution == Size{}) screen.setResolution(frame.size);
        exif = world.orientation == 2 ? 7 : world.orientation == 3 ? 4 : world.orientation == 4 ? 2 : 5;
        detect(frame, exif, frameRun, false);
    }
    void analyzeImageAtPath(const std::optional<Frame>& picture) {
        if (spent || level < 12) return;
        if (!picture) {
            say("missing.jpg: no such file");
            return;
        }
        screen.show(picture->size);
        screen.setResolution(picture->size);
        keep(picture->mark, 5);
        detect(*picture, 5, run, true);
    }
    void runGlobalBlock() {
        if (tests.empty()) return;
        const Step step = tests.front();
        tests.pop_front();
        if (step.run == run) testSmile(step);
    }
    [[nodiscard]] std::vector<std::size_t> blocks() const { return {analysisQueue.size(), tests.size(), mainBlocks}; }
    void runMainBlock() {
        if (mainBlocks == 0) return;
        --mainBlocks;
        if (waiting.empty()) return;
        const Item item = waiting.front();
        waiting.pop_front();
        if (item.run != run) {
            outcomes.insert("a step of an ended run");
            return;
        }
        switch (item.kind) {
            case Item::Countdown:
                return tell(kCountdown, "countdown", nullptr);
            case Item::Success:
                return tell(kSuccess, "success", item.results);
            case Item::Automatic:
                return selectAutomatically(item);
            case Item::Manual:
                return deliverManually(item);
            case Item::CountdownStatus:
                item.results->setStatuses({10});
                addUxp({10});
                return tell(kResults, "results", item.results);
            case Item::Plain:
                return tell(kResults, "results", item.results);
            case Item::Statuses:
                if (select && hears(kSuccess)) return finish("manual", item.results, item.mark, 1);
                return tell(kResults, "results", item.results);
        }
    }

private:
    /// What travels with a frame.
    struct Step {
        int run;
        std::shared_ptr<Results> results;
        Mark mark;
    };
    struct Item {
        enum Kind { Plain, Statuses, CountdownStatus, Countdown, Automatic, Manual, Success } kind;
        int run;
        std::shared_ptr<Results> results;
        Mark mark;
    };

    [[nodiscard]] bool hears(Method method) const { return delegate && (*delegate & method) != 0; }
    void tell(Method method, const std::string& name, const std::shared_ptr<Results>& object) {
        if (!hears(method)) return;
        calls.push_back({name, object, object ? *object : Results()});
        fire(world.duringCall);
    }
    void say(const std::string& line) {
        logLines.push_back(line);
        fire(world.duringLogging);
    }
    void addEvent(int event) {
        static const char* const kCodes[] = {"SA",  "SS",   "IS",   "HS",   "RS",   "MF",  "MT",
                                             "ST",  "C",    "FENF", "FENC", "FEMF", "FER", "FEP",
                                             "FEY", "FETF", "FETC", "FENS", "FESS", "FHS", "FS"};
        if (event == std::exchange(lastEvent, event)) return;
        log.push_back({{kCodes[event], {static_cast<std::int64_t>(world.time * 1000.0)}}});
    }
    void addUxp(const std::vector<std::int64_t>& statuses) {
        static const int kEvents[] = {0, 9, 11, 12, 13, 14, 15, 16, 10, 17, 19, 0, 0, 18, 20};
        for (const std::int64_t status : statuses) addEvent(kEvents[status]);
    }
    void keep(Mark mark, std::size_t limit) {
        history.push_back(mark);
        while (history.size() > limit) history.pop_front();
    }
    void wait(Item item) {
        const auto replaces = [&](const Item& older) {
            if (item.kind == Item::Countdown || older.kind == Item::Countdown) return item.kind == older.kind;
            return item.kind <= Item::CountdownStatus && older.kind <= Item::CountdownStatus;
        };
        if (item.kind == Item::Automatic) {
            for (const Item& older : waiting)
                if (older.kind == Item::Automatic && older.run == item.run) return;
        }
        const auto older = std::find_if(waiting.begin(), waiting.end(), replaces);
        if (older != waiting.end()) {
            waiting.erase(older);
            outcomes.insert("a newer one took a waiting one's place");
        } else {
            ++mainBlocks;
        }
        waiting.push_back(std::move(item));
    }

    void detect(const Frame& frame, std::uint32_t orientation, int frameRun, bool still) {
        asked.push_back("request " + std::to_string(frame.mark) + " orientation " + std::to_string(orientation) +
                        " revision " + std::to_string(level >= 13 ? 3 : 2));
        fire(world.duringRequest);
        if (world.throws || world.handlerError) {
            say(!world.throws
                    ? "SequenceRequestHandler couldn't perform requests: " + world.handlerError->localizedDescription
                : still ? "A still image could not be analysed: not enough memory"
                        : "A frame could not be analysed: not enough memory");
            if (!still) inProgress = false;
            return;
        }
        const auto faces = world.faces;
        if (!still) inProgress = false;
        if (frameRun != run || selection || skip || smileTest) return;
        if (world.requestError) say("Detect face request error: " + world.requestError->localizedDescription);
        if (still) results = results->withoutSelection();
        const Step step{frameRun, results, frame.mark};
        if (faces.size() == 1) return judgeFace(faces.front(), step);
        report(Item::Plain, step, {!faces.empty() ? 2 : 1});
    }
    void report(Item::Kind kind, const Step& step, const std::vector<std::int64_t>& statuses) {
        step.results->setStatuses(statuses);
        addUxp(statuses);
        smileStatus = 0;
        startCountdown = true;
        wait({kind, step.run, step.results, step.mark});
    }
    void judgeFace(const FaceObservation& face, const Step& step) {
        Results& r = *step.results;
        const FaceLandmarks landmarks = face.landmarks.value_or(FaceLandmarks());
        r.faceRect = screen.faceRect(face.boundingBox);
        r.contour = Screen::inRect(landmarks.faceContour, r.faceRect);
        r.nose = Screen::inRect(landmarks.nose, r.faceRect);
        r.lips = Screen::inRect(landmarks.outerLips, r.faceRect);
        const auto& p = *parameters;
        const Strictness strictness{p.roll(), p.pitch(), p.yaw(), p.minFill(), p.maxFill()};
        const Verdict verdict = judge(r.contour, r.nose, r.lips, strictness, screen.big, screen.small, holdStill);
        noseMiddle = verdict.noseMiddle;
        lipLeft = verdict.lipLeft;
        lipRight = verdict.lipRight;
        fill = verdict.fill;
        if (!verdict.statuses.empty()) return report(Item::Statuses, step, verdict.statuses);
        r.setStatuses({});
        if (parameters->selectOnSmile() || parameters->mode() != 2) {
            smileTest = true;
            tests.push_back(step);
        } else if (select || parameters->countdownTime() <= 1) {
            wait({Item::Automatic, step.run, step.results, step.mark});
        } else {
            wait({std::exchange(startCountdown, false) ? Item::Countdown : Item::CountdownStatus, step.run,
                  step.results, step.mark});
        }
    }
    void testSmile(const Step& step) {
        asked.push_back("smile " + std::to_string(step.mark));
        fire(world.duringTest);
        if (step.run != run) return;
        if (world.throws) say("A smile could not be judged: not enough memory");
        if (world.throws || world.smilingFaces + world.otherFaces != 1) {
            smileTest = false;
            return;
        }
        const bool smiling = world.smilingFaces == 1;
        if (smileStatus == 0) smileStatus = smiling ? 1 : 2;
        const bool manual = parameters->mode() == 1;
        const bool askToStop = smiling && (smileStatus == 1 || manual);
        std::optional<Mark> chosen;
        if (smiling && !askToStop) chosen = history.front();
        if (!smiling && smileStatus == 1) chosen = history.back();
        if (selection || skip) {
            outcomes.insert("a smile test overtaken by a pause");
            return;
        }
        const std::vector<std::int64_t> statuses{askToStop ? 13 : 14};
        step.results->setStatuses(statuses);
        addUxp(statuses);
        if (chosen && !manual) {
            const int mine = beginSelection(smiling ? "smile came" : "smile went");
            closeRecord(*step.results, *chosen, 2);
            wait({Item::Success, mine, step.results, *chosen});
        } else {
            wait({Item::Statuses, step.run, step.results, step.mark});
        }
        smileTest = false;
    }

    void selectAutomatically(const Item& item) {
        item.results->setStatuses({14});
        finish("automatic", item.results, item.mark, 2);
    }
    void deliverManually(const Item& item) {
        Results& object = *item.results;
        if (manualOnly) {
            object.setStatuses({0});
        } else if (!object.statuses || object.statuses->empty()) {
            object.setStatuses({14});
        }
        outcomes.insert("manual delivery");
        closeRecord(object, item.mark, 1);
        if (item.run == run) tell(kSuccess, "success", item.results);
    }
    int beginSelection(const char* how) {
        outcomes.insert(how);
        selection = true;
        return ++run;
    }
    void finish(const char* how, const std::shared_ptr<Results>& object, Mark mark, std::int64_t code) {
        const int mine = beginSelection(how);
        closeRecord(*object, mark, code);
        if (mine == run) tell(kSuccess, "success", object);
    }
    void closeRecord(Results& object, Mark mark, std::int64_t code) {
        object.image = mark;
        object.code = code;
        addEvent(parameters->mode() == 2 ? 6 : 7);
        record["UXP"] = log;
        record["Autocapture"] = parameters->mode() == 2 ? "1" : "0";
        record["SelvioResultCode"] = code == 2 ? "SuccessVideo" : "SuccessStillCamera";
        const auto quality = static_cast<float>(static_cast<double>(parameters->imageQuality()) / 100);
        asked.push_back("encode " + std::to_string(mark));
        fire(world.duringEncoding);
        object.record = record.dump();
        object.encoded.reset();
        if (!world.throws && world.codecFailsAt == 0) {
            object.encoded = "encoded at 1.000000, then at " + std::to_string(quality) + ", 72x72/1: " + *object.record;
        }
        if (world.throws) say("The selected image could not be encoded: not enough memory");
    }

    const int level;
    int run = 0;
    std::optional<int> delegate;
    int lastEvent = 20;
    std::deque<Step> tests;    // the global queue
    std::deque<Item> waiting;  // for the main queue
};

}  // namespace selvio::reference
