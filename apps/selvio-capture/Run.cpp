// `run`: wires camera, analyzer and person together for one capture.
#include "Commands.h"
#include "Countdown.h"
#include "FrameWatch.h"
#include "HostPlatform.h"
#include "InputWatcher.h"
#include "KeptQueues.h"
#include "OutputFiles.h"
#include "RunOutput.h"
#include "Source.h"

#include <SelvioFacialCapture/SelvioFacialCapture.h>
#include <SelvioFacialCapture/SelvioFacialCaptureCamera.h>
#include <SelvioFacialCapture/imaging/Base64.h>

#include <unistd.h>
#include <cstdlib>
#include <iostream>

namespace selvio::app {
namespace {

using namespace std::chrono_literals;

constexpr auto kWatchInterval = 200ms;
constexpr auto kLongestFinishing = 15s;  // of a recording
constexpr auto kLongestEnding = 30s;     // of everything

/// One capture. Everything in it runs on the main queue, but for the frames' way from the camera to the analyzer.
class Session : public std::enable_shared_from_this<Session> {
public:
    Session(Platform platform, const RunOptions& options, const Source& source, RunOutput& output, Language language)
        : platform_(std::move(platform)), options_(options), source_(source), output_(output), language_(language) {}

    void begin();
    void interrupted() { cancel(ExitCode::NotCaptured, text(Phrase::Cancelled, language_)); }
    void entered() {
        if (!ending_) analyzer_->selectFrame();
    }
    [[nodiscard]] ExitCode exitCode() const { return exitCode_; }

private:
    using Results = SelvioFacialCaptureAnalyzerDelegate::Results;

    void makeAnalyzer();
    void makeCamera();
    void openCamera(bool granted);
    void cameraConfigured();
    void cameraStarted();
    void watchFrames();
    void timedOut();

    void detectionResults(const Results& results);
    void startCountdown();
    void detectionSuccess(const Results& results);
    void detectionCancelled(const Results& results);
    void manualOnly();

    void cancel(ExitCode code, const std::string& why);
    void end(ExitCode code);
    void stopCamera();
    void awaitRecording();
    void recordingFinished(const std::vector<std::uint8_t>& data);
    void complete();

    void report(const char* event, const Results& results);
    void say(const std::string& text);
    void write(const char* name, Phrase what, std::string_view bytes);
    void fail(ExitCode code);
    [[nodiscard]] bool takesFirstGoodFace() const;

    /// The function, as a block for another queue that does nothing once the session has gone.
    template <typename... Arguments>
    auto weakly(void (Session::*function)(Arguments...)) {
        return [weak = weak_from_this(), function](const Arguments&... arguments) {
            if (const auto self = weak.lock()) ((*self).*function)(arguments...);
        };
    }
    /// A block that runs the function on the main queue after what the session queue has been given so far.
    void afterSessionQueue(void (Session::*function)()) {
        camera_->videoQueue()->async([main = platform_.mainQueue, block = weakly(function)] { main->async(block); });
    }

    const Platform platform_;
    const RunOptions options_;
    const Source source_;
    RunOutput& output_;
    const Language language_;

    std::shared_ptr<SelvioFacialCaptureAnalyzer> analyzer_;
    std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate> analyzerDelegate_;
    std::shared_ptr<SelvioFacialCaptureCamera> camera_;
    std::shared_ptr<SelvioFacialCaptureCameraDelegate> cameraDelegate_;
    std::shared_ptr<Countdown> countdown_;
    std::shared_ptr<FrameWatch> frames_;
    std::chrono::nanoseconds resumeTime_{0};
    std::shared_ptr<AssetWriter> finishing_;  // the recording that is waited for
    std::chrono::nanoseconds stopTime_{0};
    bool analyzerIsManualOnly_ = false;
    bool selected_ = false;
    bool ending_ = false;
    ExitCode exitCode_ = ExitCode::Success;
};

// Setting up. Each step that can fail ends the session with its exit code.

void Session::begin() {
    countdown_ = std::make_shared<Countdown>(
        platform_.mainQueue, [this](std::int64_t left) { output_.countdown(left); },
        [this] { analyzer_->selectFrame(); });
    resumeTime_ = platform_.clock->monotonicTime();
    frames_ = std::make_shared<FrameWatch>(resumeTime_);
    makeAnalyzer();
    makeCamera();
    SelvioFacialCaptureCamera::checkCameraPermission(
        [main = platform_.mainQueue, answer = weakly(&Session::openCamera)](bool granted) {
            main->async([answer, granted] { answer(granted); });
        },
        platform_);
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
    cameraDelegate_->didFinishConfiguringSession = [] {
    };  // the camera counts as configured only for a delegate that wants to know
    cameraDelegate_->didReceiveSampleBuffer = [analyzer = analyzer_, frames = frames_,
                                               clock = platform_.clock](const auto& sampleBuffer) {
        frames->noteFrame(clock->monotonicTime());
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
    if (analyzerIsManualOnly_ && takesFirstGoodFace()) analyzer_->selectFrame();  // no frame will be judged
    platform_.mainQueue->asyncAfter(std::chrono::seconds(options_.parameters->timeout()), weakly(&Session::timedOut));
    afterSessionQueue(&Session::cameraStarted);
}

void Session::cameraStarted() {
    if (ending_) return;
    const auto session = camera_->session();
    if (!session || !session->isRunning()) return cancel(ExitCode::NoCamera, "the camera could not be started");
    watchFrames();
}

// While it runs.

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

void Session::timedOut() {
    if (!frames_->anyFrame()) return cancel(ExitCode::NoCamera, text(Phrase::NoFrames, language_));
    cancel(ExitCode::NotCaptured, text(Phrase::TimedOut, language_));
}

/// In manual mode without a terminal nobody can press Enter.
bool Session::takesFirstGoodFace() const {
    return options_.parameters->mode() == SelvioFacialCaptureModeManual && ::isatty(STDIN_FILENO) == 0;
}

void Session::detectionResults(const Results& results) {
    if (ending_) return;
    const auto status = results->highestPriorityStatus();
    if (status != SelvioFacialCaptureStatusCountdown)
        countdown_->cancel();  // the face is lost; the next good frame asks for a new countdown
    report("detectionResults", results);
    // Manual captures report a smile, which does not keep a person from pressing Enter.
    const bool good = status == SelvioFacialCaptureStatusGoodFrame || status == SelvioFacialCaptureStatusStopSmiling;
    if (good && takesFirstGoodFace() && !std::exchange(selected_, true)) analyzer_->selectFrame();
}

void Session::startCountdown() {
    if (ending_) return;
    report("startCountdown", nullptr);
    countdown_->start(options_.parameters->countdownTime());
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
    write("record.json", Phrase::Record, results->obixDataString().value_or("") + "\n");
    analyzer_->stop();
    end(ExitCode::Success);
}

void Session::detectionCancelled(const Results& results) {
    report("detectionCancelled", results);
    write("record.json", Phrase::Record, results->obixDataString().value_or("") + "\n");
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
        say(why);
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
    platform_.mainQueue->asyncAfter(kLongestEnding, [code = exitCode_, center = platform_.notificationCenter] {
        complain("the camera does not end");
        center->post(ApplicationNotification::WillTerminate);
        std::cout.flush();
        std::_Exit(static_cast<int>(code == ExitCode::Success ? ExitCode::Other : code));
    });
}

void Session::stopCamera() {
    const auto writer = camera_->assetWriter();
    const bool recording = writer && writer->status() == AssetWriterStatus::Writing;
    camera_->stop();
    if (recording) {
        camera_->stopRecording();  // a session that ended by itself left that to us; a second request does nothing
        finishing_ = writer;
        stopTime_ = platform_.clock->monotonicTime();
        return awaitRecording();
    }
    if (exitCode_ == ExitCode::Success && camera_->parameters()->recordVideo()) {
        complain("nothing was recorded");
        fail(ExitCode::NotWritten);
    }
    complete();
}

/// That a recording failed is told by its writer alone.
void Session::awaitRecording() {
    const auto status = finishing_->status();
    const bool failed = status == AssetWriterStatus::Failed || status == AssetWriterStatus::Cancelled;
    if (failed || platform_.clock->monotonicTime() - stopTime_ > kLongestFinishing) return recordingFinished({});
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
    platform_.notificationCenter->post(
        ApplicationNotification::WillTerminate);  // the camera removes what is left of recordings
    camera_->shutdown();
    MainQueue::shared()->quit();
}

// What the person gets.

void Session::report(const char* event, const Results& results) {
    const std::chrono::duration<double> time = platform_.clock->monotonicTime() - resumeTime_;
    output_.event({event, time.count(),
                   results ? results->orderedStatuses().value_or(std::vector<SelvioFacialCaptureStatus>{})
                           : std::vector<SelvioFacialCaptureStatus>{}});
}

void Session::say(const std::string& text) {
    if (options_.json) {
        complain(text);
    } else {
        output_.message(text);
    }
}

void Session::write(const char* name, Phrase what, std::string_view bytes) {
    const auto path = options_.out / name;
    if (const auto error = writeFileAtomically(path, bytes)) {
        complain(error->localizedDescription);
        return fail(ExitCode::NotWritten);
    }
    if (!options_.json)
        output_.message(text(what, language_) + ": " + std::filesystem::absolute(path).lexically_normal().string());
}

/// The first thing that goes wrong decides the exit code.
void Session::fail(ExitCode code) {
    if (exitCode_ == ExitCode::Success) exitCode_ = code;
}

}  // namespace

ExitCode run(const RunOptions& options) {
    blockInterrupts();
    const auto language = languageOfLocale();
    if (const auto error = prepareOutputDirectory(options.out)) {
        complain(error->localizedDescription);
        return ExitCode::NotWritten;
    }
    auto platform = makeHostPlatform();
    const auto chosen = useSource(platform, options);
    if (const auto* failure = std::get_if<SourceFailure>(&chosen)) {
        complain(failure->message);
        return failure->code;
    }
    if (const auto error = waitForModels()) {
        complain(error->localizedDescription);
        return ExitCode::UnreadableInput;
    }
    const auto& source = std::get<Source>(chosen);
    const auto camera = options.parameters->cameraParameters();
    const std::string mark = camera->recordVideo() && camera->showRecordingUI() ? "[REC] " : "";
    const auto output = options.json ? makeJsonOutput(std::cout)
                                     : makePersonOutput(std::cout, ::isatty(STDOUT_FILENO) == 1, language, mark);
    const auto where = text(Phrase::Source, language) + ": " + source.description;
    if (options.json) {
        complain(where);
    } else {
        output->message(where);
    }

    KeptQueues queues;  // outlives the session
    platform.makeSerialQueue = [&queues](const std::string& label) { return queues.make(label); };
    const auto session = std::make_shared<Session>(std::move(platform), options, source, *output, language);
    const bool enterSelects =
        options.parameters->mode() == SelvioFacialCaptureModeManual && ::isatty(STDIN_FILENO) == 1;
    if (enterSelects) std::cerr << text(Phrase::PressEnter, language) << std::endl;
    const auto queue = MainQueue::shared();
    const InputWatcher watcher(
        queue, [&session] { session->interrupted(); },
        enterSelects ? std::function<void()>([&session] { session->entered(); }) : std::function<void()>());
    queue->async([&session] { session->begin(); });
    queue->run();
    return session->exitCode();
}

}  // namespace selvio::app
