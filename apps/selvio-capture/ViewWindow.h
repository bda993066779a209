// `run` in a window: what the person sees, the keys, and one capture after the other until a photograph is accepted.
#pragma once

#include "RunOutput.h"
#include "Session.h"

#include <SelvioFacialCapture/gtk/CaptureView.h>

#include <chrono>
#include <functional>
#include <memory>

typedef struct _GtkWindow GtkWindow;  // NOLINT(bugprone-reserved-identifier): as GTK has it

namespace selvio::app {

/// Also the sessions' output, which it hands on to the terminal's. On the main thread.
///
///     capturing ──P──▶ paused ──P──▶ capturing
///         │  ▲            │
///         │  └─R──────────┴──────────┐
///         └──photograph taken──▶ reviewing ──accepted, closed──▶ ended
///     capturing, paused ──Escape, closed, time-out──▶ ended
///
/// When an X display is lost the capture continues in the terminal, and a photograph that waits for an answer is kept.
class ViewWindow final : public RunOutput {
public:
    using BeginSession = std::function<std::shared_ptr<Session>(RunOutput& output, std::function<void()> ended)>;

    /// Puts the view into the platform. Null where there is no display. `terminal` outlives the window.
    [[nodiscard]] static std::unique_ptr<ViewWindow> open(Platform& platform, const RunOptions& options,
                                                          Language language, RunOutput& terminal);
    ~ViewWindow() override;
    ViewWindow(const ViewWindow&) = delete;
    ViewWindow& operator=(const ViewWindow&) = delete;

    /// Runs GTK's loop, and the main queue in it, until a capture has come to its end for good.
    [[nodiscard]] ExitCode run(BeginSession beginSession);
    /// Ends everything; a photograph that was not accepted is dropped.
    void cancel();
    /// Takes the picture.
    void takePicture();

    void event(const RunEvent& event) override;
    void countdown(std::int64_t secondsLeft, bool recording) override;
    void message(const std::string& text) override;
    void endLine() override;

private:
    enum class Stage { Capturing, Paused, Reviewing, Ended };

    ViewWindow(std::shared_ptr<GtkCaptureView> view, const RunOptions& options, Language language, RunOutput& terminal);

    void beginCapture();
    void captureEnded();
    void review();
    void accept();
    void startAgain();
    void dropPhotograph();
    void togglePause();
    void end(ExitCode code);
    [[noreturn]] void continueWithoutDisplay();
    [[nodiscard]] bool press(unsigned key);
    [[nodiscard]] bool isRepeat(unsigned key);
    void showCaptureActions();
    [[nodiscard]] bool isManual() const;

    const std::shared_ptr<GtkCaptureView> view_;
    const RunOptions options_;
    const Language language_;
    RunOutput& terminal_;
    GtkWindow* const window_;
    BeginSession beginSession_;
    std::shared_ptr<Session> session_;
    Bitmap photograph_;  // of the capture; null if it took none
    unsigned heldKey_ = 0;
    std::chrono::steady_clock::time_point heldKeyTime_;
    Stage stage_ = Stage::Capturing;
    bool again_ = false;        // the capture that is ending is not wanted: begin anew
    bool cancelled_ = false;    // nor is another
    bool displayGone_ = false;  // nothing of GTK may be called any more
    ExitCode exitCode_ = ExitCode::Success;
};

}  // namespace selvio::app
