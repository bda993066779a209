// The real widget in a real window: what is on the screen, and what a screen reader is told.
#include <SelvioFacialCapture/gtk/CaptureView.h>

#include <gmock/gmock.h>
#include <gtk/gtk.h>

#include <cmath>
#include <thread>

#include "platform/gtk/FaceOval.h"
#include "support/FakeDevice.h"
#include "support/ManualQueue.h"

namespace selvio {
namespace {

using Colour = std::array<int, 3>;  // red, green, blue
constexpr Colour kRed{255, 0, 0}, kBlue{0, 0, 255}, kWhite{255, 255, 255}, kAmber{255, 184, 0}, kGreen{61, 219, 133};

bool areNear(const Colour& a, const Colour& b, int most = 40) {
    return std::ranges::all_of(std::array{0u, 1u, 2u}, [&](auto i) { return std::abs(a[i] - b[i]) <= most; });
}

double luminance(const Colour& colour) {
    const auto linear = [](int value) { return std::pow((value / 255.0 + 0.055) / 1.055, 2.4); };
    return 0.2126 * linear(colour[0]) + 0.7152 * linear(colour[1]) + 0.0722 * linear(colour[2]);
}

/// A picture whose left half has one colour and whose right half another.
std::shared_ptr<PixelBuffer> halves(const Colour& left, const Colour& right) {
    auto picture = PixelBuffer::create(320, 568, kPixelFormat32BGRA);  // rows without padding
    for (int i = 0; i < 320 * 568; ++i) {
        for (int c = 0; c < 4; ++c)
            picture->data()[4 * i + c] = static_cast<std::uint8_t>(
                c == 3 ? 255 : (i % 320 < 160 ? left : right).at(static_cast<std::size_t>(2 - c)));
    }
    return picture;
}

bool until(const std::function<bool()>& condition) {
    const gint64 end = g_get_monotonic_time() + 10 * G_USEC_PER_SEC;
    const guint timer = g_timeout_add(
        5, [](gpointer) -> gboolean { return TRUE; }, nullptr);  // wakes the loop
    while (!condition() && g_get_monotonic_time() < end) g_main_context_iteration(nullptr, TRUE);
    g_source_remove(timer);
    return condition();
}

/// The view in a window, and what it shows.
struct Rig {
    explicit Rig(int width = 360, int height = 640) {
        platform.screen = std::make_shared<FakeScreen>();  // 1080 x 1920
        platform.mainQueue = queue;
        platform.notificationCenter = std::make_shared<NotificationCenter>();
        view = GtkCaptureView::make(platform,
                                    {.parameters = parameters, .textForKey = [this](const auto&) { return text; }});
        gtk_window_set_default_size(window, width, height);
        gtk_window_set_decorated(window, FALSE);
        gtk_window_set_child(window, view->widget());
        gtk_window_present(window);
        EXPECT_TRUE(until([&] { return gtk_widget_get_width(GTK_WIDGET(window)) == width; }));
    }
    ~Rig() {
        if (window != nullptr) gtk_window_destroy(window);
    }
    void shoot() {
        GtkWidget* const widget = view->widget();
        GdkFrameClock* const clock = gtk_widget_get_frame_clock(widget);
        bool painted = false;
        const gulong handler = g_signal_connect_data(
            clock, "after-paint", G_CALLBACK(+[](GdkFrameClock*, gpointer to) { *static_cast<bool*>(to) = true; }),
            &painted, nullptr, GConnectFlags{});
        gtk_widget_queue_draw(widget);
        EXPECT_TRUE(until([&] { return painted; }));
        g_signal_handler_disconnect(clock, handler);
        width = gtk_widget_get_width(widget);
        height = gtk_widget_get_height(widget);
        GtkSnapshot* const snapshot = gtk_snapshot_new();
        const graphene_rect_t bounds{{0, 0}, {static_cast<float>(width), static_cast<float>(height)}};
        const GdkRGBA black{0, 0, 0, 1};
        gtk_snapshot_append_color(snapshot, &black, &bounds);
        GTK_WIDGET_GET_CLASS(widget)->snapshot(widget, snapshot);
        GskRenderNode* const node = gtk_snapshot_free_to_node(snapshot);
        GskRenderer* const renderer = gtk_native_get_renderer(gtk_widget_get_native(widget));
        GdkTexture* const texture = gsk_renderer_render_texture(renderer, node, &bounds);
        pixels.resize(static_cast<std::size_t>(4 * width * height));
        gdk_texture_download(texture, pixels.data(), static_cast<gsize>(4 * width));
        g_object_unref(texture);
        gsk_render_node_unref(node);
    }
    /// Of the last shot, in the widget's coordinates.
    [[nodiscard]] Colour at(double x, double y) const {
        const auto* const pixel = &pixels.at(static_cast<std::size_t>(4 * (std::lround(y) * width + std::lround(x))));
        return {pixel[2], pixel[1], pixel[0]};
    }
    /// Of the last shot, in the screen's points.
    [[nodiscard]] Colour onScreen(double x, double y) const {
        const double scale = std::min(width / 1080.0, height / 1920.0);
        return at(width / 2.0 + (x - 540) * scale, height / 2.0 + (y - 960) * scale);
    }
    /// Whether this colour comes to be at a point of the screen.
    bool shows(const Colour& colour, Point point = {20, 1900}) {
        return until([&] { return shoot(), areNear(onScreen(point.x, point.y), colour); });
    }
    bool showFrame(const Colour& left, const Colour& right) {
        view->showFrame(SampleBuffer::makeVideo(halves(left, right)));
        return shows(right);
    }
    void report(SelvioFacialCaptureStatus status) const {
        SelvioFacialCaptureResults results;
        results.setHighestPriorityStatus(status);
        results.setNosePoints(std::vector<Point>{{300, 900}});
        view->showResults(results);
    }
    /// The label of a style that is shown; null if there is none.
    GtkWidget* label(const char* style, GtkWidget* within = nullptr) {
        if (within == nullptr) shoot();
        if (within == nullptr) within = view->widget();
        if (gtk_widget_has_css_class(within, style) == TRUE && gtk_widget_get_mapped(within) == TRUE) return within;
        for (GtkWidget* child = gtk_widget_get_first_child(within); child != nullptr;
             child = gtk_widget_get_next_sibling(child))
            if (GtkWidget* const found = label(style, child)) return found;
        return nullptr;
    }

    const std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>("main");
    const std::shared_ptr<SelvioFacialCaptureParameters> parameters = std::make_shared<SelvioFacialCaptureParameters>();
    std::string text = "Bringen Sie das Gesicht in die Mitte";
    Platform platform;
    GtkWindow* window = GTK_WINDOW(gtk_window_new());
    std::shared_ptr<GtkCaptureView> view;
    int width = 0, height = 0;
    std::vector<std::uint8_t> pixels;
};

struct CaptureView : testing::Test {
    static void SetUpTestSuite() {
        ::setenv("GTK_A11Y", "test", 1);
        ASSERT_TRUE(gtk_init_check()) << "run it with tests/support/with-display.sh";
    }
};

TEST_F(CaptureView, ShowsTheMirroredPictureTheOvalItsStateTheLandmarksAndThePhotograph) {
    for (const auto& [width, height] : {std::pair{360, 640}, {700, 500}}) {
        SCOPED_TRACE(width);
        Rig rig(width, height);
        EXPECT_TRUE(rig.showFrame(kRed, kBlue)) << "the frame's right is at the left";
        EXPECT_TRUE(areNear(rig.onScreen(1060, 960), kRed));
        EXPECT_EQ(areNear(rig.at(2, 300), {}), width == 700) << "nothing but the picture beside it";
        for (const std::int64_t maxFill : {725, 900}) {
            rig.parameters->setMaxFill(maxFill);
            const auto oval = faceOvalFor(rules::limitsOf(*rig.parameters), {1080, 1920});
            // At least and at most so much of the oval is painted.
            for (const auto& [status, colour, least, most] :
                 {std::tuple{SelvioFacialCaptureStatusFaceNotFound, kWhite, 0.1, 0.45},
                  {SelvioFacialCaptureStatusStopSmiling, kAmber, 0.5, 0.8},
                  {SelvioFacialCaptureStatusCountdown, kGreen, 0.97, 1.0}}) {
                rig.report(status);
                rig.shoot();
                int painted = 0;
                for (int degree = 0; degree < 360; ++degree) {
                    const double angle = degree * std::acos(-1.0) / 180;
                    painted += areNear(
                        rig.onScreen(oval.middle.x + oval.halfWidth * std::cos(angle),
                                     oval.middle.y + (degree < 180 ? oval.below : oval.above) * std::sin(angle)),
                        colour, 60);
                }
                EXPECT_TRUE(painted >= least * 360 && painted <= most * 360) << painted << ' ' << status << maxFill;
            }
        }
        EXPECT_TRUE(rig.shows(kBlue, {300, 900}));
        rig.parameters->setHighlightLandmarks(true);
        EXPECT_TRUE(rig.shows({77, 230, 255}, {300, 900}));
        rig.view->showPhotograph(halves(kWhite, kRed));
        EXPECT_TRUE(rig.shows(kWhite)) << "not mirrored";
        EXPECT_TRUE(rig.shows(kWhite, {300, 900})) << "and nothing over it";
        rig.view->showPhotograph(nullptr);
        EXPECT_TRUE(rig.shows(kBlue)) << "the camera's last frame";
    }
}

TEST_F(CaptureView, IsReadableAtEverySizeInBothDirectionsAndThemesForEyesAndScreenReaders) {
    for (const auto& [dpi, width, height, direction, dark] :
         {std::tuple{96, 270, 480, GTK_TEXT_DIR_RTL, true},
          {192, 360, 640, GTK_TEXT_DIR_RTL, false},
          {192, 270, 480, GTK_TEXT_DIR_LTR, true},
          {96, 360, 640, GTK_TEXT_DIR_LTR, false}}) {  // the last one for the other tests
        SCOPED_TRACE(testing::Message() << dpi << " dpi, " << width);
        g_object_set(gtk_settings_get_default(), "gtk-xft-dpi", dpi * 1024, "gtk-application-prefer-dark-theme", dark,
                     nullptr);
        gtk_widget_set_default_direction(direction);
        Rig rig(width, height);
        EXPECT_TRUE(rig.showFrame(kWhite, kWhite));
        rig.report(SelvioFacialCaptureStatusCountdown);
        rig.view->setRecording(true);
        rig.view->showCountdown(2, 2);
        graphene_rect_t place{}, former{};
        for (const auto& [style, text] :
             {std::pair{"recording", std::string("\u25cf REC")}, {"guidance", rig.text}, {"countdown", "2"}}) {
            GtkWidget* const label = rig.label(style);
            ASSERT_NE(label, nullptr) << style;
            EXPECT_EQ(gtk_label_get_text(GTK_LABEL(label)), text);
            ASSERT_TRUE(gtk_widget_compute_bounds(label, rig.view->widget(), &place));
            EXPECT_TRUE(place.origin.x >= 0 && place.origin.x + place.size.width <= static_cast<float>(width)) << style;
            EXPECT_GE(place.origin.y, former.origin.y + former.size.height) << style << " lies over what is above it";
            EXPECT_LE(place.origin.y + place.size.height, static_cast<float>(height)) << style;
            EXPECT_TRUE(style != std::string("recording") ||
                        (place.origin.x > static_cast<float>(width) / 2) == (direction == GTK_TEXT_DIR_RTL));
            std::vector<double> seen;
            for (double y = place.origin.y + 8; y < place.origin.y + place.size.height - 8; ++y)
                for (double x = place.origin.x + 8; x < place.origin.x + place.size.width - 8; ++x)
                    seen.push_back(luminance(rig.at(x, y)));
            EXPECT_GE((std::ranges::max(seen) + 0.05) / (std::ranges::min(seen) + 0.05), 4.5) << style;
            former = place;
        }
        GtkAccessible* const guidance = GTK_ACCESSIBLE(rig.label("guidance"));
        EXPECT_TRUE(gtk_test_accessible_has_role(guidance, GTK_ACCESSIBLE_ROLE_STATUS));
        EXPECT_EQ(gtk_test_accessible_check_property(guidance, GTK_ACCESSIBLE_PROPERTY_LABEL, rig.text.c_str()),
                  nullptr);
        rig.report(SelvioFacialCaptureStatusMoveCloser);
        EXPECT_EQ(rig.label("countdown"), nullptr);
        rig.view->showText("Pause");
        EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(guidance)), "Pause");
        int pressed = 0;
        rig.view->setActions({{"Foto aufnehmen", [&] { ++pressed; }}});
        ASSERT_TRUE(GTK_IS_BUTTON(gtk_window_get_focus(rig.window))) << "the keyboard is where one can act";
        gtk_widget_activate(gtk_window_get_focus(rig.window));
        EXPECT_TRUE(until([&] { return pressed == 1; }));
    }
}

TEST_F(CaptureView, TellsWhenItsWindowIsNotActiveAndIsUnreadableWhileItIsCovered) {
    Rig rig;
    std::string told;
    const auto observer = std::make_shared<int>();
    for (const auto& [notification, word] : {std::pair{ApplicationNotification::WillResignActive, "resigned "},
                                             {ApplicationNotification::DidBecomeActive, "active "}})
        rig.platform.notificationCenter->addObserver(observer, notification, [&told, word = word] { told += word; });
    EXPECT_TRUE(until([&] { return gtk_window_is_active(rig.window) == TRUE; }));
    auto* const other = GTK_WINDOW(gtk_window_new());
    gtk_window_present(other);
    EXPECT_TRUE(until([&] { return rig.queue->runAll(), told == "resigned "; }));
    gtk_window_destroy(other);
    gtk_window_present(rig.window);
    EXPECT_TRUE(until([&] { return rig.queue->runAll(), told == "resigned active "; }));

    const Point edge{530, 1900};
    EXPECT_TRUE(rig.showFrame(kRed, kBlue) && rig.shows(kBlue, edge));
    rig.view->addSubview({1, 77, {}});
    rig.view->addSubview({1, 77, {}});
    EXPECT_TRUE(until(
        [&] { return rig.shoot(), rig.onScreen(edge.x, edge.y)[0] > 80 && rig.onScreen(edge.x, edge.y)[2] > 80; }));
    EXPECT_TRUE(rig.view->removeSubviewWithTag(77));
    rig.shoot();
    EXPECT_FALSE(areNear(rig.onScreen(edge.x, edge.y), kBlue)) << "one cover is left";
    EXPECT_TRUE(rig.view->removeSubviewWithTag(77));
    EXPECT_TRUE(rig.shows(kBlue, edge));

    const auto code = rig.view->layer()->transformedMetadataObject({"PDF417", "text", {0.1, 0.2, 0.3, 0.4}});
    EXPECT_NEAR(code.bounds.x, 648, 2) << "mirrored, as it is seen";
    EXPECT_NEAR(code.bounds.height, 768, 2);
}

TEST_F(CaptureView, EndsBeforeOrAfterItsWidgetAndOnAnyThread) {
    for (const bool windowFirst : {true, false}) {
        for (const bool elsewhere : {true, false}) {
            Rig rig;
            GtkWidget* widget = rig.view->widget();
            g_object_add_weak_pointer(G_OBJECT(widget), reinterpret_cast<gpointer*>(&widget));
            std::atomic<bool> stop = false;
            std::thread camera([&stop, view = rig.view]() mutable {
                while (!stop) view->showFrame(SampleBuffer::makeVideo(PixelBuffer::create(72, 128, kPixelFormat420v)));
                view.reset();
            });
            rig.view->showCountdown(2, 3);
            EXPECT_NE(rig.label("countdown"), nullptr);
            if (windowFirst) gtk_window_destroy(std::exchange(rig.window, nullptr));
            rig.report(SelvioFacialCaptureStatusGoodFrame);
            rig.view->setActions({{"one", {}}});
            if (elsewhere) rig.view.reset();
            stop = true;
            camera.join();
            rig.view.reset();
            if (!windowFirst) gtk_window_destroy(std::exchange(rig.window, nullptr));
            EXPECT_TRUE(until([&] { return widget == nullptr; })) << windowFirst << elsewhere << ": nothing is left";
        }
    }
}

}  // namespace
}  // namespace selvio
