// What the person in front of the camera sees, as a widget for GTK 4.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>
#include <SelvioFacialCapture/SelvioFacialCaptureResults.h>
#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/imaging/Image.h>
#include <SelvioFacialCapture/imaging/SampleBuffer.h>
#include <SelvioFacialCapture/platform/Platform.h>
#include <SelvioFacialCapture/platform/View.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

typedef struct _GtkWidget GtkWidget;  // NOLINT(bugprone-reserved-identifier): as GTK has it

namespace selvio {

struct GtkCaptureViewOptions {
    /// Their fill limits place the oval, and `highlightLandmarks` has the landmarks drawn, as they are in force when a
    /// frame is drawn. Null: the defaults.
    std::shared_ptr<SelvioFacialCaptureParameters> parameters;
    /// The text for a status's localisation key. Empty: the key itself is shown.
    std::function<std::string(const std::string& key)> textForKey;
    /// Stands beside the red point while a recording is made.
    std::string recordingText = "REC";
};

/// A button, which the keyboard reaches too.
struct GtkCaptureViewAction {
    std::string label;
    std::function<void()> perform;  ///< on the main thread
};

/// The camera's view: the live picture as in a mirror, the oval where the face belongs, the guidance, the countdown, a
/// mark while recording, and the photograph in the end.
///
///     platform.makeView = [view] { return view; };                          // before the camera is made
///     gtk_window_set_child(window, view->widget());
///     didReceiveSampleBuffer  view->showFrame(frame); analyzer->analyzeSampleBuffer(frame);
///     detectionResults        view->showResults(*results);
///     your countdown          view->showCountdown(secondsLeft, seconds);
///     detectionSuccess        view->showPhotograph(results->selectedImage()->bitmap);
///
/// The picture has the shape of the platform's screen, by which the analyzer judges, and lies in the middle of the
/// widget, whatever the widget's size: what is cut off here is what the analyzer does not count. The picture always
/// fills that shape; another video gravity changes nothing. Frames come upright, whatever the connection's orientation.
///
/// While the window that holds the widget is not active the platform's notification centre is notified that the
/// application has resigned, upon which the camera has the picture covered: it becomes too coarse to recognise anyone.
///
/// On the main thread, which runs both GTK and the platform's main queue (see `drainFromGLib`), unless said otherwise.
/// It may end before or after its widget, and on any thread.
class SELVIO_EXPORT GtkCaptureView final : public PlainView {
public:
    /// Null, with one line in the log, when GTK finds no display (it is initialised here unless the host has done so)
    /// or the platform has no screen.
    [[nodiscard]] static std::shared_ptr<GtkCaptureView> make(const Platform& platform,
                                                              GtkCaptureViewOptions options = {});
    ~GtkCaptureView() override;
    GtkCaptureView(const GtkCaptureView&) = delete;
    GtkCaptureView& operator=(const GtkCaptureView&) = delete;

    /// The view's own widget; who needs it for longer takes a reference.
    [[nodiscard]] GtkWidget* widget() const;

    /// Has the frame shown: scaled on a thread of the view's own, the newest first; older ones that still wait are left
    /// out. Keeps the last one until the next comes or the camera shuts down. Any thread, without waiting.
    void showFrame(const std::shared_ptr<SampleBuffer>& frame);

    /// The state of the oval, the guidance's text, and the landmarks. Any status but the countdown's ends the
    /// countdown.
    void showResults(const SelvioFacialCaptureResults& results);
    /// A text of the host's own instead of guidance; ends the countdown.
    void showText(const std::string& text);
    /// The number, in a ring of which `secondsLeft` of `seconds` are left.
    void showCountdown(std::int64_t secondsLeft, std::int64_t seconds);
    void setRecording(bool recording);
    /// Shows a picture, not mirrored, in place of the camera's, and nothing over it but the text and the actions. Null
    /// shows the camera again.
    void showPhotograph(Bitmap photograph);
    /// Buttons at the lower end, in place of those before. The first has the keyboard's focus.
    void setActions(const std::vector<GtkCaptureViewAction>& actions);

    void addSubview(const BlurView& view) override;
    bool removeSubviewWithTag(std::int64_t tag) override;

private:
    struct SELVIO_HIDDEN State;
    explicit GtkCaptureView(std::shared_ptr<State> state);

    const std::shared_ptr<State> state_;
};

}  // namespace selvio
