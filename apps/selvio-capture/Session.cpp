#include "Session.h"

#include "OutputFiles.h"
#include "Report.h"

#include <SelvioFacialCapture/gtk/CaptureView.h>
#include <SelvioFacialCapture/imaging/Base64.h>

#include <unistd.h>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <utility>

namespace selvio::app {
namespace {

using namespace std::chrono_literals;

constexpr auto kWatchInterval = 200ms;
constexpr auto kLongestEnding = kLongestFinishing + 15s;  // of everything: after the longest end of a recording

bool isWriting(const SelvioFacialCaptureCamera& camera) {
    const auto writer = camera.assetWriter();
    return writer && writer->status() == AssetWriterStatus::Writing;
}

}  // namespace

// Setting up. Each step that can fail ends the session with its exit code.

std::shared_ptr<Session> Session::make(Platform platform, const RunOptions& options, const Source& source,
                                       RunOutput& output, Language language, std::function<void()> ended) {
    std::shared_ptr<Session> session(
        new Session(std::move(platform), options, source, output, language, std::move(ended)));
    session->makeAnalyzer();
    session->makeCamera();
    return session;
}

Session::Session(Platform platform, const RunOptions& options, const Source& source, RunOutput& output,
                 Language language, std::function<void()> ended)
    : platform_(std::move(platform)),
      options_(options),
      source_(source),
      output_(output),
      language_(language),
      ended_(std::move(ended)),
      resumeTime_(platform_.clock->monotonicTime()),
      frames_(std::make_shared<FrameWatch>(resumeTime_)) {
    makeCountdown();
}

void Session::begin() {
    if (ending_) return;
    SelvioFacialCaptureCamera::checkCameraPermission(
        [main = platform_.mainQueue, answer = weakly(&Session::openCamera)](bool granted) {
            main->async([answer, granted] { answer(granted); });
        },
        platform_);
}

void Session::makeCountdown() {
    countdown_ = std::make_shared<Countdown>(
        platform_.mainQueue, options_.parameters->countdownTime(),
        [this](std::int64_t left) { output_.countdown(left, isRecording()); }, [this] { analyzer_->selectFrame(); });
}

void Session::makeAnalyzer() {
    analyzer_ = SelvioFacialCaptureAnalyzer::initWithParameters(options_.parameters, platform_);
    analyzerDelegate_ = std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
    analyzerDelegate_->detectionResults = weakly(&Session::detectionResults);
    analyzerDelegate_->startCountdown = weakly(&Session::startCountdown);
    analyzerDelegate_->detectionSuccess = weakly(&Session::detectionSuccess);
    analyzerDelegate_->detectionCancelled = weakly(&Session::detectionCancelled);
    analyzerDelegate_->manualOnly = weakly(&Session::manualOnly);
    analyzer_->setDelegate(analyzerDelegate_);
}

void Session::makeCamera() {
    camera_ = SelvioFacialCaptureCamera::initWithPreset(
        kCaptureSessionPreset1280x720, kPixelFormat420v, source_.position, VideoOrientation::Portrait,
        Rect{0, 0, platform_.screen->bounds().width, platform_.screen->bounds().height}, platform_);
    camera_->setAnalyzeRGBVideo(false);  // as cameras deliver: the detector and the encoders take it without a detour
    camera_->setParameters(options_.parameters->cameraParameters());
    cameraDelegate_ = std::make_shared<SelvioFacialCaptureCameraDelegate>();
    // The camera counts as configured only for a delegate that wants to know.
    cameraDelegate_->didFinishConfiguringSession = [] {};
    cameraDelegate_->didReceiveSampleBuffer =
        [analyzer = analyzer_, frames = frames_, clock = platform_.clock, camera = std::weak_ptr(camera_),
         recordable = frameRecordable_, since = std::optional<std::chrono::nanoseconds>(),
         view = std::dynamic_pointer_cast<GtkCaptureView>(camera_->view())](const auto& sampleBuffer) mutable {
            frames->noteFrame(clock->monotonicTime());
            const auto recorder = since ? nullptr : camera.lock();
            if (const auto session = recorder && isWriting(*recorder) ? recorder->session() : nullptr)
                since = session->masterClockTime();
            if (since && sampleBuffer->timing().presentationTime >= since) *recordable = true;
            if (view) view->showFrame(sampleBuffer);
            analyzer->analyzeSampleBuffer(sampleBuffer);
        };
    cameraDelegate_->didFinishRecordingVideo =
        [main = platform_.mainQueue, block = weakly(&Session::recordingFinished)](std::vector<std::uint8_t> data) {
            main->async(
                [block, data = std::make_shared<const std::vector<std::uint8_t>>(std::move(data))] { block(*data); });
        };
}

void Session::openCamera(bool granted) {
    if (ending_) return;
    if (!granted) return cancel(ExitCode::NoCamera, "no access to the camera");
    const auto parameters = camera_->parameters();
    if (parameters->recordAudio() && !platform_.captureSystem->defaultDevice(MediaType::Audio)) {
        complain("there is no microphone; going on without sound");  // the camera would not open at all
        parameters->setRecordAudio(false);
    }
    camera_->setDelegate(cameraDelegate_);
    afterSessionQueue(&Session::cameraConfigured);
}

void Session::cameraConfigured() {
    if (ending_) return;
    if (!camera_->isConfigured()) return cancel(ExitCode::NoCamera, "the camera could not be opened");
    camera_->start();
    resumeTime_ = platform_.clock->monotonicTime();
    analyzer_->resume();
    resumed_ = true;
    // No frame will be judged where the analyzer is manual only.
    if (enteredEarly_ || (analyzerIsManualOnly_ && takesFirstGoodFace())) analyzer_->selectFrame();
    startTimeout();
    afterSessionQueue(&Session::cameraStarted);
}

void Session::cameraStarted() {
    if (ending_) return;
    const auto session = camera_->session();
    if (!session || !session->isRunning()) return cancel(ExitCode::NoCamera, "the camera could not be started");
    watchFrames();
}

// While it runs.

void Session::cancelByPerson() {
    cancel(ExitCode::NotCaptured, text(Phrase::Cancelled, language_));
}

void Session::takePicture() {
    if (!resumed_) {
        enteredEarly_ = true;  // starting forgets what was selected before
    } else if (!ending_) {
        analyzer_->selectFrame();
    }
}

void Session::becomeUnattended() {
    options_.attended = false;
}

bool Session::setPaused(bool paused) {
    if (ending_ || !resumed_ || paused == paused_) return false;
    paused_ = paused;
    if (paused) {
        countdown_->cancel();
        analyzer_->pause();
        ++timeout_;
    } else {
        makeCountdown();  // one that had finished has asked for a picture, which is forgotten
        analyzer_->resume();
        startTimeout();
    }
    return true;
}

void Session::watchFrames() {
    if (ending_) return;
    switch (frames_->stateAt(platform_.clock->monotonicTime())) {
        case FrameWatch::State::NeverCame:
            return cancel(ExitCode::NoCamera, text(Phrase::NoFrames, language_));
        case FrameWatch::State::Stopped:
            return cancel(ExitCode::NoCamera, text(Phrase::FramesStopped, language_));
        case FrameWatch::State::Flowing:
            break;
    }
    platform_.mainQueue->asyncAfter(kWatchInterval, weakly(&Session::watchFrames));
}

void Session::startTimeout() {
    platform_.mainQueue->asyncAfter(std::chrono::seconds(options_.parameters->timeout()),
                                    [block = weakly(&Session::timedOut), timeout = ++timeout_] { block(timeout); });
}

void Session::timedOut(const std::uint64_t& timeout) {
    if (timeout != timeout_) return;
    if (!frames_->anyFrame()) return cancel(ExitCode::NoCamera, text(Phrase::NoFrames, language_));
    cancel(ExitCode::NotCaptured, text(Phrase::TimedOut, language_));
}

/// In manual mode without a terminal or a window nobody can press a key.
bool Session::takesFirstGoodFace() const {
    return options_.parameters->mode() == SelvioFacialCaptureModeManual && !options_.attended &&
           ::isatty(STDIN_FILENO) == 0;
}

void Session::detectionResults(const Results& results) {
    if (ending_ || paused_) return;
    const auto status = results->highestPriorityStatus();
    countdown_->follow(status);
    report("detectionResults", results);
    // Manual captures report a smile, which does not keep a person from pressing Enter.
    const bool good = status == SelvioFacialCaptureStatusGoodFrame || status == SelvioFacialCaptureStatusStopSmiling;
    if (good && takesFirstGoodFace() && !std::exchange(selected_, true)) analyzer_->selectFrame();
}

void Session::startCountdown() {
    if (ending_ || paused_) return;
    report("startCountdown", nullptr);
    countdown_->start();
}

void Session::detectionSuccess(const Results& results) {
    if (ending_) return;
    report("detectionSuccess", results);
    const auto photograph = base64::decode(results->encodedSelectedImage().value_or("-"));
    if (photograph) {
        write("selfie.jpg", Phrase::Photograph,
              {reinterpret_cast<const char*>(photograph->data()), photograph->size()});
    } else {
        complain("the photograph could not be encoded");
        fail(ExitCode::NotWritten);
    }
    writeRecord(results, photograph.value_or(Bytes()));
    analyzer_->stop();
    end(ExitCode::Success);
}

void Session::detectionCancelled(const Results& results) {
    report("detectionCancelled", results);
    writeRecord(results, {});
}

void Session::manualOnly() {
    analyzerIsManualOnly_ = true;
    report("manualOnly", nullptr);
}

// The end: analyzer, camera, recording, in this order.

void Session::cancel(ExitCode code, const std::string& why) {
    if (ending_) return;
    if (code == ExitCode::NoCamera) {
        complain(why);
    } else {
        output_.message(why);
    }
    analyzer_->cancel();
    end(code);
}

void Session::end(ExitCode code) {
    ending_ = true;
    fail(code);
    countdown_->cancel();
    // A start that was asked for comes first, on both queues, else it would come after the stop.
    camera_->videoQueue()->async(
        [output = camera_->videoOutputQueue(), main = platform_.mainQueue, block = weakly(&Session::stopCamera)] {
            output->async([main, block] { main->async(block); });
        });
    giveUpEnding(kLongestEnding);
}

// In steps: the time in which the process was stopped does not count.
void Session::giveUpEnding(std::chrono::seconds left) {
    if (complete_) return;
    if (left > 0s)
        return platform_.mainQueue->asyncAfter(1s,
                                               [again = weakly(&Session::giveUpEnding), left] { again(left - 1s); });
    complain("the camera does not end");
    writeResults(options_.attended && !options_.accept);
    platform_.notificationCenter->post(ApplicationNotification::WillTerminate);
    std::cout.flush();
    std::_Exit(static_cast<int>(exitCode_ == ExitCode::Success ? ExitCode::Other : exitCode_));
}

void Session::stopCamera() {
    // The first frame may come meanwhile, and the first ones may have been stamped before the recording began.
    const auto writer = camera_->assetWriter();
    const bool recording = isRecording();
    const bool anyFrame = exitCode_ == ExitCode::Success ? frames_->anyFrame() : frameRecordable_->load();
    if (recording && !anyFrame) camera_->discardRecording();  // there is nothing in it that could be lost
    camera_->stop();
    if (recording && anyFrame) {
        camera_->stopRecording();  // a session that ended by itself left that to us; a second request does nothing
        finishing_ = writer;
        return awaitRecording();
    }
    if (exitCode_ == ExitCode::Success && camera_->parameters()->recordVideo()) {
        complain("nothing was recorded");
        fail(ExitCode::NotWritten);
    }
    complete();
}

/// Only the writer reports that a recording failed; it gives up when finishing takes too long.
void Session::awaitRecording() {
    const auto status = finishing_->status();
    if (status == AssetWriterStatus::Failed || status == AssetWriterStatus::Cancelled) return recordingFinished({});
    platform_.mainQueue->asyncAfter(kWatchInterval, weakly(&Session::awaitRecording));
}

void Session::recordingFinished(const std::vector<std::uint8_t>& data) {
    if (data.empty()) {
        complain("the recording could not be finished");
        fail(ExitCode::NotWritten);
    } else {
        write("recording.mp4", Phrase::Recording, {reinterpret_cast<const char*>(data.data()), data.size()});
    }
    complete();
}

void Session::complete() {
    complete_ = true;
    // The camera removes what is left of recordings.
    platform_.notificationCenter->post(ApplicationNotification::WillTerminate);
    camera_->shutdown();
    ended_();
}

// What the person gets.

void Session::report(const char* event, const Results& results) {
    const std::chrono::duration<double> time = platform_.clock->monotonicTime() - resumeTime_;
    output_.event({event, time.count(),
                   results ? results->orderedStatuses().value_or(std::vector<SelvioFacialCaptureStatus>{})
                           : std::vector<SelvioFacialCaptureStatus>{},
                   isRecording(), results});
}

bool Session::isRecording() const {
    return camera_ && isWriting(*camera_);
}

void Session::complain(const std::string& text) {
    output_.endLine();
    app::complain(text);
}

void Session::write(const char* name, Phrase what, std::string_view bytes) {
    if (!options_.attended) return store(name, what, bytes);
    held_.push_back({name, what, std::string(bytes)});
}

void Session::writeResults(bool recordOnly) {
    const auto before = std::exchange(exitCode_, ExitCode::Success);
    for (const auto& held : std::exchange(held_, {})) {
        if (!recordOnly || held.what == Phrase::Record) store(held.name, held.what, held.bytes);
    }
    fail(before);
}

void Session::store(const char* name, Phrase what, std::string_view bytes) {
    const auto path = options_.out / name;
    if (const auto error = writeFileAtomically(path, bytes)) {
        complain(error->localizedDescription);
        return fail(ExitCode::NotWritten);
    }
    if (!options_.json)
        output_.message(text(what, language_) + ": " + std::filesystem::absolute(path).lexically_normal().string());
}

void Session::writeRecord(const Results& results, const Bytes& photograph) {
    const std::string record = results->obixDataString().value_or("") + "\n";
    write("record.json", Phrase::Record, record);
    if (!options_.report) return;
    if (const auto page = reportPage(record, photograph, language_)) return write("report.html", Phrase::Report, *page);
    complain("no report can be made of the record");
    fail(ExitCode::NotWritten);
}

/// The first thing that goes wrong decides the exit code.
void Session::fail(ExitCode code) {
    if (exitCode_ == ExitCode::Success) exitCode_ = code;
}

}  // namespace selvio::app
