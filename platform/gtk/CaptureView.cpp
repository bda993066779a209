// A widget that draws the picture and what belongs over it in one go, and lays its few labels and buttons out itself,
// because they belong to the picture and not to the widget around it.
#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/gtk/CaptureView.h>
#include <SelvioFacialCapture/rules/PreviewGeometry.h>

#include <gtk/gtk.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <numbers>
#include <thread>
#include <utility>

#include "platform/gtk/FaceOval.h"
#include "platform/gtk/PictureFeed.h"

namespace selvio {
namespace {

// White on three quarters of black is readable over any picture, in a light theme as in a dark one.
constexpr const char* kStyle = R"(
capture-view { background-color: black; }
capture-view > box { padding: 8px; }
capture-view label.guidance, capture-view label.recording {
    color: white; background-color: rgba(0, 0, 0, 0.75); border-radius: 12px; padding: 6px 14px;
}
capture-view label.guidance { font-size: 135%; font-weight: bold; }
capture-view label.countdown { color: white; font-size: 400%; font-weight: 800; }
capture-view button {
    color: white; background: rgba(0, 0, 0, 0.75); border: 2px solid white; border-radius: 12px; box-shadow: none;
    text-shadow: none; font-weight: bold; padding: 6px 14px;
}
capture-view button:first-child { color: black; background: white; }
capture-view button:focus-visible { outline: 3px solid #ffb800; outline-offset: 1px; }
)";

constexpr int kNaturalWidth = 360;  // of the widget, in its own units
constexpr int kLeastWidth = 120;

/// How the oval shows its state: by colour, by its line and by its width.
struct OvalStyle {
    std::array<double, 3> colour;
    double lineWidth;
    std::array<double, 2> dashes;  ///< zero: an unbroken line
};
constexpr OvalStyle kWaiting{{1.0, 1.0, 1.0}, 3.0, {5.0, 9.0}};
constexpr OvalStyle kGuiding{{1.0, 0.72, 0.0}, 4.0, {18.0, 10.0}};
constexpr OvalStyle kGood{{0.24, 0.86, 0.52}, 6.0, {0.0, 0.0}};

const OvalStyle& styleFor(SelvioFacialCaptureStatus status) {
    switch (status) {
        case SelvioFacialCaptureStatusNone:
        case SelvioFacialCaptureStatusFaceNotFound:
        case SelvioFacialCaptureStatusMoreThanOneFace:
            return kWaiting;
        case SelvioFacialCaptureStatusCountdown:
        case SelvioFacialCaptureStatusGoodFrame:
            return kGood;
        default:
            return kGuiding;
    }
}

/// Runs the function on GTK's thread, later.
void onMainThread(std::function<void()> function) {
    g_idle_add_full(
        G_PRIORITY_DEFAULT,
        [](gpointer data) -> gboolean {
            (*static_cast<std::function<void()>*>(data))();
            return G_SOURCE_REMOVE;
        },
        new std::function<void()>(std::move(function)),
        [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
}

GdkTexture* textureOf(const std::shared_ptr<const PixelBuffer>& pixels) {
    using Kept = std::shared_ptr<const PixelBuffer>;
    GBytes* const bytes = g_bytes_new_with_free_func(
        pixels->data(), pixels->layout().planeBytes(), [](gpointer kept) { delete static_cast<Kept*>(kept); },
        new Kept(pixels));
    GdkTexture* const texture = gdk_memory_texture_new(pixels->width(), pixels->height(),
                                                       GDK_MEMORY_B8G8R8A8_PREMULTIPLIED, bytes, pixels->bytesPerRow());
    g_bytes_unref(bytes);
    return texture;
}

void useStyle() {
    [[maybe_unused]] static const bool once = [] {
        GtkCssProvider* const provider = gtk_css_provider_new();
        gtk_css_provider_load_from_data(provider, kStyle, -1);
        gtk_style_context_add_provider_for_display(gdk_display_get_default(), GTK_STYLE_PROVIDER(provider),
                                                   GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
        g_object_unref(provider);
        return true;
    }();
}

GtkWidget* makeLabel(const char* style, GtkAccessibleRole role) {
    auto* const label = GTK_WIDGET(g_object_new(GTK_TYPE_LABEL, "accessible-role", role, "wrap", TRUE, "wrap-mode",
                                                PANGO_WRAP_WORD_CHAR, "justify", GTK_JUSTIFY_CENTER, nullptr));
    gtk_widget_add_css_class(label, style);
    gtk_widget_set_halign(label, GTK_ALIGN_CENTER);
    gtk_widget_hide(label);
    return label;
}

class UprightConnection final : public CaptureConnection {
public:
    [[nodiscard]] bool isVideoOrientationSupported() const override { return true; }
    void setVideoOrientation(VideoOrientation orientation) override { orientation_ = orientation; }
    [[nodiscard]] VideoOrientation videoOrientation() const override { return orientation_; }

private:
    std::atomic<VideoOrientation> orientation_{VideoOrientation::Portrait};
};

class Layer final : public PlainPreviewLayer {
public:
    Layer(Size screen, std::shared_ptr<PictureFeed> feed) : screen_(screen), feed_(std::move(feed)) {}

    void setSession(std::shared_ptr<CaptureSession> session) override {
        if (!session) feed_->forgetFrame();
        PlainPreviewLayer::setSession(std::move(session));
    }
    [[nodiscard]] std::shared_ptr<CaptureConnection> connection() const override {
        const auto session = this->session();
        return session && session->hasVideoInput() ? connection_ : nullptr;
    }
    [[nodiscard]] MetadataObject transformedMetadataObject(const MetadataObject& object) const override {
        rules::PreviewGeometry geometry;
        geometry.setScreen(screen_);
        geometry.setResolution(mutex_.get(frameSize_));
        const Rect& part = object.bounds;
        MetadataObject transformed = object;
        transformed.bounds = geometry.faceRect({part.y, 1.0 - part.x - part.width, part.height, part.width});
        return transformed;
    }
    void noteFrameSize(Size size) { mutex_.set(frameSize_, size); }

private:
    const Size screen_;
    const std::shared_ptr<PictureFeed> feed_;
    const std::shared_ptr<CaptureConnection> connection_ = std::make_shared<UprightConnection>();
    mutable MemberMutex mutex_;
    Size frameSize_;  // guarded by mutex_; zero until a frame came
};

}  // namespace

/// What the widget and the view share. On the main thread, but for the feed and the layer. The widget owns it, and so
/// does the view, which may end before.
struct GtkCaptureView::State : public std::enable_shared_from_this<GtkCaptureView::State> {
    /// GObject's part.
    struct Instance {
        GtkWidget parent;
        std::shared_ptr<State>* state;
    };
    static State& of(GtkWidget* widget) { return **reinterpret_cast<Instance*>(widget)->state; }
    static GType type();
    static void initializeClass(gpointer gtkClass, gpointer);
    static inline GtkWidgetClass* parentClass = nullptr;

    State(const Platform& platform, GtkCaptureViewOptions given);
    void makeWidget();
    void disposeChildren();

    void measure(GtkOrientation orientation, int* minimum, int* natural) const;
    void allocate(int width, int height);
    void allocateCountdown();
    void snapshot(GtkSnapshot* snapshot);
    FaceOval oval() const;
    void drawOval(cairo_t* cairo, double scale) const;
    void drawLandmarks(cairo_t* cairo, double scale) const;
    void drawRing(cairo_t* cairo) const;

    void takePicture();
    void setText(const std::string& text);
    void setStyle(const OvalStyle& next);
    void endCountdown();
    void cover(bool on);
    void followActivity();
    void activityChanged(bool active);

    const GtkCaptureViewOptions options;
    const std::shared_ptr<Queue> mainQueue;
    const std::shared_ptr<NotificationCenter> notifications;
    const Size screen;
    const std::thread::id thread = std::this_thread::get_id();
    std::shared_ptr<PictureFeed> feed;
    std::shared_ptr<Layer> layer;

    GtkWidget* widget = nullptr;  // null once it is disposed of
    GtkWidget* top = nullptr;
    GtkWidget* recordingMark = nullptr;
    GtkWidget* guidance = nullptr;
    GtkWidget* countdown = nullptr;
    GtkWidget* actions = nullptr;
    gulong activityHandler = 0;
    bool resigned = false;

    GdkTexture* texture = nullptr;
    bool textureUnreadable = false;
    bool covered = false;
    bool still = false;
    const OvalStyle* style = &kWaiting;
    std::vector<Point> landmarks;  // screen points
    std::int64_t secondsLeft = 0;  // of the countdown; 0: there is none
    std::int64_t seconds = 0;
    gint64 countdownStep = 0;  // when secondsLeft was set, in microseconds

    Rect area;  // of the picture within the widget
    Point ringMiddle;
    double ringRadius = 0.0;
};

GtkCaptureView::State::State(const Platform& platform, GtkCaptureViewOptions given)
    : options(std::move(given)),
      mainQueue(platform.mainQueue),
      notifications(platform.notificationCenter),
      screen([bounds = platform.screen->bounds()] {
          return Size{std::min(bounds.width, bounds.height), std::max(bounds.width, bounds.height)};
      }()) {}

// The widget's making and end.

GType GtkCaptureView::State::type() {
    static const GType registered = g_type_register_static_simple(
        GTK_TYPE_WIDGET, "SelvioCaptureView", sizeof(GtkWidgetClass),
        [](gpointer gtkClass, gpointer data) { initializeClass(gtkClass, data); }, sizeof(Instance), nullptr,
        GTypeFlags{});
    return registered;
}

void GtkCaptureView::State::initializeClass(gpointer gtkClass, gpointer) {
    parentClass = GTK_WIDGET_CLASS(g_type_class_peek_parent(gtkClass));
    auto* const widgetClass = GTK_WIDGET_CLASS(gtkClass);
    auto* const objectClass = G_OBJECT_CLASS(gtkClass);
    gtk_widget_class_set_css_name(widgetClass, "capture-view");
    gtk_widget_class_set_accessible_role(widgetClass, GTK_ACCESSIBLE_ROLE_GROUP);
    objectClass->dispose = [](GObject* object) {
        of(GTK_WIDGET(object)).disposeChildren();
        G_OBJECT_CLASS(parentClass)->dispose(object);
    };
    objectClass->finalize = [](GObject* object) {
        delete reinterpret_cast<Instance*>(object)->state;
        G_OBJECT_CLASS(parentClass)->finalize(object);
    };
    widgetClass->measure = [](GtkWidget* widget, GtkOrientation orientation, int, int* minimum, int* natural,
                              int* minimumBaseline, int* naturalBaseline) {
        of(widget).measure(orientation, minimum, natural);
        *minimumBaseline = *naturalBaseline = -1;
    };
    widgetClass->size_allocate = [](GtkWidget* widget, int width, int height, int) {
        of(widget).allocate(width, height);
    };
    widgetClass->snapshot = [](GtkWidget* widget, GtkSnapshot* snapshot) { of(widget).snapshot(snapshot); };
    widgetClass->root = [](GtkWidget* widget) {
        parentClass->root(widget);
        of(widget).followActivity();
    };
    widgetClass->unroot = [](GtkWidget* widget) {
        State& state = of(widget);
        if (state.activityHandler != 0)
            g_signal_handler_disconnect(gtk_widget_get_root(widget), std::exchange(state.activityHandler, 0));
        parentClass->unroot(widget);
    };
}

void GtkCaptureView::State::makeWidget() {
    feed = std::make_shared<PictureFeed>(screen, [weak = weak_from_this()] {
        onMainThread([weak] {
            if (const auto self = weak.lock()) self->takePicture();
        });
    });
    layer = std::make_shared<Layer>(screen, feed);

    useStyle();
    widget = GTK_WIDGET(g_object_ref_sink(g_object_new(type(), nullptr)));
    reinterpret_cast<Instance*>(widget)->state = new std::shared_ptr<State>(shared_from_this());
    gtk_widget_set_overflow(widget, GTK_OVERFLOW_HIDDEN);
    g_signal_connect(widget, "notify::scale-factor", G_CALLBACK(gtk_widget_queue_allocate), nullptr);

    recordingMark = makeLabel("recording", GTK_ACCESSIBLE_ROLE_LABEL);
    gtk_widget_set_halign(recordingMark, GTK_ALIGN_START);
    gchar* const mark =
        g_markup_printf_escaped("<span foreground='#ff6b6b'>\u25cf</span> %s", options.recordingText.c_str());
    gtk_label_set_markup(GTK_LABEL(recordingMark), mark);
    g_free(mark);
    guidance = makeLabel("guidance", GTK_ACCESSIBLE_ROLE_STATUS);  // whose changes a screen reader speaks
    top = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
    gtk_box_append(GTK_BOX(top), recordingMark);
    gtk_box_append(GTK_BOX(top), guidance);
    countdown = makeLabel("countdown", GTK_ACCESSIBLE_ROLE_TIMER);
    actions = gtk_box_new(GTK_ORIENTATION_VERTICAL, 6);
    for (GtkWidget* const child : {top, countdown, actions}) gtk_widget_set_parent(child, widget);
}

void GtkCaptureView::State::disposeChildren() {
    widget = nullptr;
    for (GtkWidget** const child : {&top, &countdown, &actions}) g_clear_pointer(child, gtk_widget_unparent);
    g_clear_object(&texture);
}

// Layout.

void GtkCaptureView::State::measure(GtkOrientation orientation, int* minimum, int* natural) const {
    const double shape = orientation == GTK_ORIENTATION_HORIZONTAL ? 1.0 : screen.height / screen.width;
    *minimum = static_cast<int>(std::lround(kLeastWidth * shape));
    *natural = static_cast<int>(std::lround(kNaturalWidth * shape));
}

void GtkCaptureView::State::allocate(int width, int height) {
    const double scale = std::min(width / screen.width, height / screen.height);
    area.width = std::round(screen.width * scale);
    area.height = std::round(screen.height * scale);
    area.x = std::floor((width - area.width) / 2);
    area.y = std::floor((height - area.height) / 2);
    const int pixels = gtk_widget_get_scale_factor(widget);
    feed->setSize(static_cast<int>(area.width) * pixels, static_cast<int>(area.height) * pixels);

    const auto place = [this](GtkWidget* child, bool atTheEnd) {
        if (!gtk_widget_get_visible(child)) return;
        int least = 0;
        gtk_widget_measure(child, GTK_ORIENTATION_HORIZONTAL, -1, &least, nullptr, nullptr, nullptr);
        const int childWidth = std::max(least, static_cast<int>(area.width));
        int childHeight = 0;
        gtk_widget_measure(child, GTK_ORIENTATION_VERTICAL, childWidth, &childHeight, nullptr, nullptr, nullptr);
        const GtkAllocation allocation{static_cast<int>(area.x + (area.width - childWidth) / 2),
                                       static_cast<int>(atTheEnd ? area.y + area.height - childHeight : area.y),
                                       childWidth, childHeight};
        gtk_widget_size_allocate(child, &allocation, -1);
    };
    place(top, false);
    place(actions, true);
    allocateCountdown();
}

/// Under the oval, or as far down as the picture and the actions allow.
void GtkCaptureView::State::allocateCountdown() {
    if (!gtk_widget_get_visible(countdown)) return;
    GtkRequisition size;
    gtk_widget_get_preferred_size(countdown, nullptr, &size);
    ringRadius = std::hypot(size.width, size.height) / 2 + 6;
    double end = area.y + area.height;
    if (gtk_widget_get_visible(actions) && gtk_widget_get_first_child(actions))
        end -= gtk_widget_get_allocated_height(actions);
    const FaceOval oval = this->oval();
    const double ovalEnd = area.y + (oval.middle.y + oval.below) * area.width / screen.width;
    ringMiddle = {area.x + area.width / 2, std::min((ovalEnd + end) / 2, end - ringRadius - 6)};
    const GtkAllocation allocation{static_cast<int>(std::lround(ringMiddle.x - size.width / 2.0)),
                                   static_cast<int>(std::lround(ringMiddle.y - size.height / 2.0)), size.width,
                                   size.height};
    gtk_widget_size_allocate(countdown, &allocation, -1);
}

// Drawing.

void GtkCaptureView::State::snapshot(GtkSnapshot* snapshot) {
    const graphene_rect_t bounds{{static_cast<float>(area.x), static_cast<float>(area.y)},
                                 {static_cast<float>(area.width), static_cast<float>(area.height)}};
    if (texture) gtk_snapshot_append_texture(snapshot, texture, &bounds);
    if (covered && !textureUnreadable) {
        const GdkRGBA grey{0.75F, 0.75F, 0.75F, 1.0F};
        gtk_snapshot_append_color(snapshot, &grey, &bounds);
    }
    if (!covered && !still) {
        cairo_t* const cairo = gtk_snapshot_append_cairo(snapshot, &bounds);
        cairo_translate(cairo, area.x, area.y);
        const double scale = area.width / screen.width;
        drawOval(cairo, scale);
        drawLandmarks(cairo, scale);
        cairo_translate(cairo, -area.x, -area.y);
        drawRing(cairo);
        cairo_destroy(cairo);
    }
    for (GtkWidget* const child : {top, countdown, actions}) gtk_widget_snapshot_child(widget, child, snapshot);
}

FaceOval GtkCaptureView::State::oval() const {
    return faceOvalFor(options.parameters ? rules::limitsOf(*options.parameters) : rules::FaceLimits{}, screen);
}

void GtkCaptureView::State::drawOval(cairo_t* cairo, double scale) const {
    const FaceOval oval = this->oval();
    const auto half = [&](double height, double from) {
        cairo_save(cairo);
        cairo_translate(cairo, oval.middle.x * scale, oval.middle.y * scale);
        cairo_scale(cairo, oval.halfWidth * scale, height * scale);
        cairo_arc(cairo, 0, 0, 1, from, from + std::numbers::pi);
        cairo_restore(cairo);
    };
    half(oval.above, std::numbers::pi);
    half(oval.below, 0);
    cairo_close_path(cairo);

    const double unit = area.width / kNaturalWidth;
    cairo_set_source_rgba(cairo, 0, 0, 0, 0.6);  // sets the line off from a picture of its own colour
    cairo_set_line_width(cairo, (style->lineWidth + 2) * unit);
    cairo_stroke_preserve(cairo);
    cairo_set_source_rgb(cairo, style->colour[0], style->colour[1], style->colour[2]);
    cairo_set_line_width(cairo, style->lineWidth * unit);
    if (style->dashes[0] > 0) {
        const std::array<double, 2> dashes{style->dashes[0] * unit, style->dashes[1] * unit};
        cairo_set_dash(cairo, dashes.data(), 2, 0);
    }
    cairo_stroke(cairo);
    cairo_set_dash(cairo, nullptr, 0, 0);
}

void GtkCaptureView::State::drawLandmarks(cairo_t* cairo, double scale) const {
    if (!options.parameters || !options.parameters->highlightLandmarks()) return;
    const auto dots = [&](double radius) {
        for (const Point& point : landmarks) {
            cairo_new_sub_path(cairo);
            cairo_arc(cairo, point.x * scale, point.y * scale, radius, 0, 2 * std::numbers::pi);
        }
        cairo_fill(cairo);
    };
    cairo_set_source_rgba(cairo, 0, 0, 0, 0.6);
    dots(3.5);
    cairo_set_source_rgb(cairo, 0.3, 0.9, 1.0);
    dots(2.5);
}

void GtkCaptureView::State::drawRing(cairo_t* cairo) const {
    if (secondsLeft <= 0) return;
    const double passed = static_cast<double>(g_get_monotonic_time() - countdownStep) / G_USEC_PER_SEC;
    const double left = (static_cast<double>(secondsLeft) - std::min(passed, 1.0)) / static_cast<double>(seconds);
    const double begin = -std::numbers::pi / 2;
    const double whole = 2 * std::numbers::pi;
    cairo_arc(cairo, ringMiddle.x, ringMiddle.y, ringRadius, 0, whole);
    cairo_set_source_rgba(cairo, 0, 0, 0, 0.75);
    cairo_fill(cairo);
    cairo_set_line_width(cairo, 5);
    const auto ring = [&](double share) {
        cairo_arc(cairo, ringMiddle.x, ringMiddle.y, ringRadius - 3, begin, begin + whole * share);
        cairo_stroke(cairo);
    };
    cairo_set_source_rgba(cairo, 1, 1, 1, 0.35);
    ring(1.0);
    cairo_set_source_rgb(cairo, kGood.colour[0], kGood.colour[1], kGood.colour[2]);
    ring(std::clamp(left, 0.0, 1.0));
}

// What is shown.

void GtkCaptureView::State::takePicture() {
    const auto picture = feed->take();
    if (!widget || !picture.pixels) return;
    g_clear_object(&texture);
    texture = textureOf(picture.pixels);
    textureUnreadable = picture.unreadable;
    gtk_widget_queue_draw(widget);
}

void GtkCaptureView::State::setText(const std::string& text) {
    if (text != gtk_label_get_text(GTK_LABEL(guidance))) gtk_label_set_text(GTK_LABEL(guidance), text.c_str());
    gtk_widget_set_visible(guidance, text.empty() ? FALSE : TRUE);
}

/// Landmarks and the ring are drawn with the next frame: one drawing a frame is enough.
void GtkCaptureView::State::setStyle(const OvalStyle& next) {
    if (std::exchange(style, &next) != &next) gtk_widget_queue_draw(widget);
}

void GtkCaptureView::State::endCountdown() {
    secondsLeft = 0;
    gtk_widget_hide(countdown);
}

void GtkCaptureView::State::cover(bool on) {
    covered = on;
    feed->setUnreadable(on);
    if (widget) gtk_widget_queue_draw(widget);
}

void GtkCaptureView::State::followActivity() {
    GtkRoot* const root = gtk_widget_get_root(widget);
    if (!GTK_IS_WINDOW(root)) return;
    activityHandler = g_signal_connect_data(
        root, "notify::is-active", G_CALLBACK(+[](GtkWindow* window, GParamSpec*, gpointer state) {
            static_cast<State*>(state)->activityChanged(gtk_window_is_active(window) == TRUE);
        }),
        this, nullptr, GConnectFlags{});
}

void GtkCaptureView::State::activityChanged(bool active) {
    if (!notifications || !mainQueue || resigned == !active) return;
    resigned = !active;
    mainQueue->async(
        [center = notifications, what = active ? ApplicationNotification::DidBecomeActive
                                               : ApplicationNotification::WillResignActive] { center->post(what); });
}

// The view.

std::shared_ptr<GtkCaptureView> GtkCaptureView::make(const Platform& platform, GtkCaptureViewOptions options) {
    if (gtk_is_initialized() == FALSE && gtk_init_check() == FALSE) {
        log("Capture view: there is no display");
        return nullptr;
    }
    if (!platform.screen || platform.screen->bounds().width <= 0 || platform.screen->bounds().height <= 0) {
        log("Capture view: the platform has no screen by which faces are judged");
        return nullptr;
    }
    const auto state = std::make_shared<State>(platform, std::move(options));
    state->makeWidget();
    return std::shared_ptr<GtkCaptureView>(new GtkCaptureView(state));
}

GtkCaptureView::GtkCaptureView(std::shared_ptr<State> state) : PlainView(state->layer), state_(std::move(state)) {}

GtkCaptureView::~GtkCaptureView() {
    GtkWidget* const widget = state_->widget;
    if (!widget) return;
    if (std::this_thread::get_id() == state_->thread) {
        g_object_unref(widget);
    } else {  // a camera's thread, say
        onMainThread([widget] { g_object_unref(widget); });
    }
}

GtkWidget* GtkCaptureView::widget() const {
    return state_->widget;
}

void GtkCaptureView::showFrame(const std::shared_ptr<SampleBuffer>& frame) {
    const auto pixels = frame ? frame->imageBuffer() : nullptr;
    if (!pixels) return;
    state_->layer->noteFrameSize({static_cast<double>(pixels->width()), static_cast<double>(pixels->height())});
    state_->feed->show(pixels);
}

void GtkCaptureView::showResults(const SelvioFacialCaptureResults& results) {
    if (!state_->widget) return;
    const auto status = results.highestPriorityStatus();
    if (status != SelvioFacialCaptureStatusCountdown) state_->endCountdown();
    const auto key = SelvioFacialCaptureResults::localizeKeyFrom(status).value_or("");
    state_->setText(state_->options.textForKey ? state_->options.textForKey(key) : key);
    state_->setStyle(styleFor(status));
    state_->landmarks.clear();
    for (const auto& points : {results.faceContourPoints(), results.nosePoints(), results.outerLipsPoints()}) {
        if (points) state_->landmarks.insert(state_->landmarks.end(), points->begin(), points->end());
    }
}

void GtkCaptureView::showText(const std::string& text) {
    if (!state_->widget) return;
    state_->endCountdown();
    state_->setText(text);
    state_->setStyle(kWaiting);
    state_->landmarks.clear();
}

void GtkCaptureView::showCountdown(std::int64_t secondsLeft, std::int64_t seconds) {
    if (!state_->widget) return;
    if (secondsLeft <= 0) return state_->endCountdown();
    state_->secondsLeft = secondsLeft;
    state_->seconds = std::max(secondsLeft, seconds);
    state_->countdownStep = g_get_monotonic_time();
    gtk_label_set_text(GTK_LABEL(state_->countdown), std::to_string(secondsLeft).c_str());
    gtk_widget_show(state_->countdown);
    gtk_widget_queue_allocate(state_->widget);
}

void GtkCaptureView::setRecording(bool recording) {
    if (state_->widget) gtk_widget_set_visible(state_->recordingMark, recording ? TRUE : FALSE);
}

void GtkCaptureView::showPhotograph(Bitmap photograph) {
    if (!state_->widget) return;
    state_->endCountdown();
    state_->still = photograph != nullptr;
    state_->feed->showStill(std::move(photograph));
    gtk_widget_queue_draw(state_->widget);
}

void GtkCaptureView::setActions(const std::vector<GtkCaptureViewAction>& actions) {
    if (!state_->widget) return;
    GtkBox* const box = GTK_BOX(state_->actions);
    while (GtkWidget* const former = gtk_widget_get_first_child(state_->actions)) gtk_box_remove(box, former);
    for (const auto& action : actions) {
        GtkWidget* const button = gtk_button_new_with_label(action.label.c_str());
        gtk_label_set_wrap(GTK_LABEL(gtk_button_get_child(GTK_BUTTON(button))), TRUE);
        using Perform = std::function<void()>;
        g_signal_connect_data(
            button, "clicked", G_CALLBACK(+[](GtkButton*, gpointer data) {
                const Perform perform = *static_cast<Perform*>(data);  // which may replace the buttons
                if (perform) perform();
            }),
            new Perform(action.perform), [](gpointer data, GClosure*) { delete static_cast<Perform*>(data); },
            GConnectFlags{});
        gtk_box_append(box, button);
    }
    if (!actions.empty()) gtk_widget_grab_focus(gtk_widget_get_first_child(state_->actions));
    gtk_widget_queue_allocate(state_->widget);
}

void GtkCaptureView::addSubview(const BlurView& view) {
    PlainView::addSubview(view);
    state_->cover(true);
}

bool GtkCaptureView::removeSubviewWithTag(std::int64_t tag) {
    const bool removed = PlainView::removeSubviewWithTag(tag);
    state_->cover(!subviews().empty());
    return removed;
}

}  // namespace selvio
