// One capture: camera, analyzer and person wired together.
#pragma once

#include "CommandLine.h"
#include "Countdown.h"
#include "FrameWatch.h"
#include "RunOutput.h"
#include "Source.h"

#include <SelvioFacialCapture/SelvioFacialCapture.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace selvio::app {

/// One capture. Everything in it runs on the main queue, except passing frames to the analyzer.
class Session : public std::enable_shared_from_this<Session> {
public:
    /// With camera and analyzer, so that the person may interrupt or press Enter from now on. `output` outlives the
    /// session; `ended` is called once, when the capture has come to its end.
    [[nodiscard]] static std::shared_ptr<Session> make(Platform platform, const RunOptions& options,
                                                       const Source& source, RunOutput& output, Language language,
                                                       std::function<void()> ended);

    void begin();
    /// Ends the capture as cancelled.
    void cancelByPerson();
    /// Takes the next frame, once the camera runs.
    void takePicture();
    /// Nobody looks at a window any more: from now on results are not held back, and without a terminal the first good
    /// face is taken.
    void becomeUnattended();
    /// Stops judging, or starts anew with the whole time; the camera continues. False where that cannot be: before the
    /// camera runs, after the end, or when it is so already.
    bool setPaused(bool paused);
    /// Writes the results that are held back while a person may still ask for another photograph: all, or the record
    /// alone. Once, after the end. If that fails it is the exit code's reason, whatever it was before.
    void writeResults(bool recordOnly = false);
    [[nodiscard]] ExitCode exitCode() const { return exitCode_; }

private:
    using Results = SelvioFacialCaptureAnalyzerDelegate::Results;

    Session(Platform platform, const RunOptions& options, const Source& source, RunOutput& output, Language language,
            std::function<void()> ended);

    void makeCountdown();
    void makeAnalyzer();
    void makeCamera();
    void openCamera(bool granted);
    void cameraConfigured();
    void cameraStarted();
    void watchFrames();
    void startTimeout();
    void timedOut(const std::uint64_t& timeout);

    void detectionResults(const Results& results);
    void startCountdown();
    void detectionSuccess(const Results& results);
    void detectionCancelled(const Results& results);
    void manualOnly();

    void cancel(ExitCode code, const std::string& why);
    void end(ExitCode code);
    void giveUpEnding(std::chrono::seconds left);
    void stopCamera();
    void awaitRecording();
    void recordingFinished(const std::vector<std::uint8_t>& data);
    void complete();

    void report(const char* event, const Results& results);
    [[nodiscard]] bool isRecording() const;
    void complain(const std::string& text);
    void write(const char* name, Phrase what, std::string_view bytes);
    void writeRecord(const Results& results, const Bytes& photograph);
    void store(const char* name, Phrase what, std::string_view bytes);
    void fail(ExitCode code);
    [[nodiscard]] bool takesFirstGoodFace() const;

    /// The function, as a block for another queue that does nothing once the session is destroyed.
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
    RunOptions options_;
    const Source source_;
    RunOutput& output_;
    const Language language_;
    const std::function<void()> ended_;

    std::shared_ptr<SelvioFacialCaptureAnalyzer> analyzer_;
    std::shared_ptr<SelvioFacialCaptureAnalyzerDelegate> analyzerDelegate_;
    std::shared_ptr<SelvioFacialCaptureCamera> camera_;
    std::shared_ptr<SelvioFacialCaptureCameraDelegate> cameraDelegate_;
    std::shared_ptr<Countdown> countdown_;
    std::chrono::nanoseconds resumeTime_;
    std::shared_ptr<FrameWatch> frames_;
    const std::shared_ptr<std::atomic<bool>> frameRecordable_ = std::make_shared<std::atomic<bool>>(false);
    std::shared_ptr<AssetWriter> finishing_;  // the recording that is waited for
    bool analyzerIsManualOnly_ = false;
    struct Held {
        const char* name;
        Phrase what;
        std::string bytes;
    };
    std::vector<Held> held_;
    std::uint64_t timeout_ = 0;  // counts the starts; the earlier ones do not count any more
    bool resumed_ = false;
    bool enteredEarly_ = false;
    bool paused_ = false;
    bool selected_ = false;
    bool ending_ = false;
    bool complete_ = false;
    ExitCode exitCode_ = ExitCode::Success;
};

}  // namespace selvio::app
