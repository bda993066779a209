#include "ViewWindow.h"

#include "DisplayLoss.h"

#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/gtk/MainLoop.h>

#include <gtk/gtk.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <iostream>
#include <utility>

namespace selvio::app {
namespace {

// Of the display: room for what a desktop lays around a window.
constexpr double kMostOfWidth = 0.9;
constexpr double kMostOfHeight = 0.8;
constexpr double kMostHeight = 800;

/// For so long a photograph is looked at, and a second press of what took it does not accept it.
constexpr auto kFirstLook = std::chrono::milliseconds(600);
/// A key that is held repeats itself, the first time after two thirds of a second as a rule.
constexpr auto kLongestRepeat = std::chrono::seconds(1);

/// A size of the screen's shape that fits every monitor.
Size sizeOnDisplay(Size screen) {
    double height = kMostHeight;
    GListModel* const monitors = gdk_display_get_monitors(gdk_display_get_default());
    for (guint i = 0; i < g_list_model_get_n_items(monitors); ++i) {
        auto* const monitor = GDK_MONITOR(g_list_model_get_item(monitors, i));
        GdkRectangle place;
        gdk_monitor_get_geometry(monitor, &place);
        g_object_unref(monitor);
        height =
            std::min({height, kMostOfHeight * place.height, kMostOfWidth * place.width * screen.height / screen.width});
    }
    return {height * screen.width / screen.height, height};
}

}  // namespace

std::unique_ptr<ViewWindow> ViewWindow::open(Platform& platform, const RunOptions& options, Language language,
                                             RunOutput& terminal) {
    // Texts in the person's language, but numbers as the component writes them.
    std::setlocale(LC_CTYPE, "");
    std::setlocale(LC_MESSAGES, "");
    gtk_disable_setlocale();
    if (gtk_init_check() == FALSE) return nullptr;
    auto view = GtkCaptureView::make(
        platform, {.parameters = options.parameters, .textForKey = [language](const std::string& key) {
                       return textForKey(key, language).value_or(key);
                   }});
    if (!view) return nullptr;
    platform.makeView = [view] { return view; };
    std::unique_ptr<ViewWindow> window(new ViewWindow(std::move(view), options, language, terminal));
    const Size size = sizeOnDisplay(platform.screen->bounds());
    gtk_window_set_default_size(window->window_, static_cast<int>(size.width), static_cast<int>(size.height));
    return window;
}

ViewWindow::ViewWindow(std::shared_ptr<GtkCaptureView> view, const RunOptions& options, Language language,
                       RunOutput& terminal)
    : view_(std::move(view)),
      options_(options),
      language_(language),
      terminal_(terminal),
      window_(GTK_WINDOW(gtk_window_new())) {
    gtk_window_set_title(window_, "selvio-capture");
    gtk_window_set_child(window_, view_->widget());
    g_signal_connect_data(window_, "close-request", G_CALLBACK(+[](GtkWindow* window, gpointer self) -> gboolean {
                              gtk_widget_hide(GTK_WIDGET(window));
                              static_cast<ViewWindow*>(self)->cancel();
                              return TRUE;
                          }),
                          this, nullptr, GConnectFlags{});
    GtkEventController* const keys = gtk_event_controller_key_new();
    g_signal_connect_data(
        keys, "key-pressed",
        G_CALLBACK(+[](GtkEventControllerKey*, guint key, guint, GdkModifierType modifiers, gpointer self) -> gboolean {
            if (static_cast<ViewWindow*>(self)->isRepeat(key)) return TRUE;
            if (key == GDK_KEY_w && (modifiers & GDK_CONTROL_MASK) != 0) {
                gtk_window_close(static_cast<ViewWindow*>(self)->window_);
                return TRUE;
            }
            if ((modifiers & (GDK_CONTROL_MASK | GDK_ALT_MASK | GDK_SUPER_MASK)) != 0) return FALSE;
            return static_cast<ViewWindow*>(self)->press(key) ? TRUE : FALSE;
        }),
        this, nullptr, GConnectFlags{});
    g_signal_connect_data(keys, "key-released",
                          G_CALLBACK(+[](GtkEventControllerKey*, guint, guint, GdkModifierType, gpointer self) {
                              static_cast<ViewWindow*>(self)->heldKey_ = 0;
                          }),
                          this, nullptr, GConnectFlags{});
    // Before the button that has the focus: it would press itself a quarter of a second after the key.
    gtk_event_controller_set_propagation_phase(keys, GTK_PHASE_CAPTURE);
    gtk_widget_add_controller(GTK_WIDGET(window_), keys);
}

ViewWindow::~ViewWindow() {
    session_.reset();
    gtk_window_destroy(window_);
}

ExitCode ViewWindow::run(BeginSession beginSession) {
    beginSession_ = std::move(beginSession);
    const auto draining = drainFromGLib(MainQueue::shared());
    MainQueue::shared()->async([this] { beginCapture(); });
    setDisplayLossHandler([this] { continueWithoutDisplay(); });
    gtk_window_present(window_);
    while (stage_ != Stage::Ended) g_main_context_iteration(nullptr, TRUE);
    return exitCode_;
}

// From capture to capture.

void ViewWindow::beginCapture() {
    if (stage_ == Stage::Ended) return;
    stage_ = Stage::Capturing;
    again_ = false;
    photograph_ = nullptr;
    session_ = nullptr;  // with its queues, before others are made
    if (!displayGone_) {
        view_->showPhotograph(nullptr);
        view_->showText(textForStatus(SelvioFacialCaptureStatusNone, language_));
        showCaptureActions();
    }
    session_ = beginSession_(*this, [this] {
        MainQueue::shared()->async([this] { captureEnded(); });  // out of the session's own call
    });
    if (displayGone_) session_->becomeUnattended();
    session_->begin();
    if (cancelled_) session_->cancelByPerson();  // before there was one
}

/// Called in the middle of what GTK does, to which it must not return.
void ViewWindow::continueWithoutDisplay() {
    displayGone_ = true;
    complain("the display is gone; going on in the terminal");
    const auto queue = MainQueue::shared();
    if (stage_ == Stage::Reviewing) accept();
    if (stage_ == Stage::Paused) togglePause();
    if (stage_ != Stage::Ended && session_) session_->becomeUnattended();
    // Within one of its blocks the queue cannot continue.
    if (stage_ != Stage::Ended && !queue->isCurrent()) queue->run();
    std::cout.flush();
    std::_Exit(static_cast<int>(stage_ == Stage::Ended ? exitCode_ : ExitCode::Other));
}

void ViewWindow::captureEnded() {
    if (!displayGone_) view_->setRecording(false);
    if (again_) return beginCapture();
    if (photograph_ && !options_.accept) {  // whatever became of a recording
        if (cancelled_) return dropPhotograph();
        if (!displayGone_) return review();
    }
    session_->writeResults();
    end(session_->exitCode());
}

void ViewWindow::review() {
    stage_ = Stage::Reviewing;
    // The camera that would uncover the view is gone.
    for (const BlurView& cover : view_->subviews()) view_->removeSubviewWithTag(cover.tag);
    view_->showPhotograph(photograph_);
    view_->showText(text(Phrase::Review, language_));
    MainQueue::shared()->asyncAfter(kFirstLook, [this, shown = photograph_] {
        if (shown != photograph_ || stage_ != Stage::Reviewing || displayGone_) return;
        view_->setActions({{text(Phrase::Accept, language_), [this] { accept(); }},
                           {text(Phrase::Retake, language_), [this] { startAgain(); }}});
    });
}

void ViewWindow::accept() {
    if (stage_ != Stage::Reviewing) return;
    session_->writeResults();
    end(session_->exitCode());
}

void ViewWindow::startAgain() {
    if (stage_ == Stage::Ended || again_ || cancelled_) return;
    if (stage_ == Stage::Reviewing) return beginCapture();
    again_ = true;
    session_->cancelByPerson();
}

void ViewWindow::togglePause() {
    if (stage_ != Stage::Capturing && stage_ != Stage::Paused) return;
    const bool pause = stage_ == Stage::Capturing;
    if (!session_->setPaused(pause)) return;
    stage_ = pause ? Stage::Paused : Stage::Capturing;
    if (displayGone_) return;
    if (!pause) return showCaptureActions();
    view_->showText(text(Phrase::Paused, language_));
    view_->setActions({{text(Phrase::GoOn, language_), [this] { togglePause(); }}});
}

void ViewWindow::cancel() {
    if (stage_ == Stage::Ended) return;
    again_ = false;
    cancelled_ = true;
    if (stage_ == Stage::Reviewing) return dropPhotograph();
    if (session_) session_->cancelByPerson();
}

void ViewWindow::dropPhotograph() {
    terminal_.message(text(Phrase::Cancelled, language_));
    session_->writeResults(true);
    end(session_->exitCode() == ExitCode::Success ? ExitCode::NotCaptured : session_->exitCode());
}

void ViewWindow::takePicture() {
    if (isManual() && stage_ == Stage::Capturing && session_) session_->takePicture();
}

void ViewWindow::end(ExitCode code) {
    exitCode_ = code;
    stage_ = Stage::Ended;
    if (displayGone_) MainQueue::shared()->quit();
}

// What the person does.

bool ViewWindow::isRepeat(unsigned key) {
    const auto now = std::chrono::steady_clock::now();
    const bool repeats = key == heldKey_ && now - heldKeyTime_ < kLongestRepeat;
    heldKey_ = key;
    heldKeyTime_ = now;
    return repeats;
}

bool ViewWindow::press(unsigned key) {
    switch (gdk_keyval_to_lower(key)) {
        case GDK_KEY_Escape:
            cancel();
            return true;
        case GDK_KEY_space:
            if (!isManual() || stage_ != Stage::Capturing) return false;  // it presses the button that has the focus
            takePicture();
            return true;
        case GDK_KEY_p:
            togglePause();
            return true;
        case GDK_KEY_r:
            startAgain();
            return true;
        default:
            return false;
    }
}

void ViewWindow::showCaptureActions() {
    std::vector<GtkCaptureViewAction> actions;
    if (isManual()) actions.push_back({text(Phrase::TakePicture, language_), [this] { takePicture(); }});
    view_->setActions(actions);
}

bool ViewWindow::isManual() const {
    return options_.parameters->mode() == SelvioFacialCaptureModeManual;
}

// What the person gets.

void ViewWindow::event(const RunEvent& event) {
    terminal_.event(event);
    if (displayGone_) return;
    view_->setRecording(event.recording && options_.parameters->cameraParameters()->showRecordingUI());
    if (!event.results) return;
    const auto selected = event.results->selectedImage();
    if (!selected) return view_->showResults(*event.results);
    photograph_ = selected->bitmap;  // frames come upright
    view_->showPhotograph(photograph_);
    view_->showResults(*event.results);
    view_->setActions({});
}

void ViewWindow::countdown(std::int64_t secondsLeft, bool recording) {
    terminal_.countdown(secondsLeft, recording);
    if (!displayGone_) view_->showCountdown(secondsLeft, options_.parameters->countdownTime());
}

void ViewWindow::message(const std::string& text) {
    terminal_.message(text);
}

void ViewWindow::endLine() {
    terminal_.endLine();
}

}  // namespace selvio::app
