// The real widget in a real window: what is on the screen, and what a screen reader is told.
#include <SelvioFacialCapture/gtk/CaptureView.h>

#include <gmock/gmock.h>
#include <gtk/gtk.h>

#include <cmath>
#include <set>
#include <thread>

#include "platform/gtk/FaceOval.h"
#include "support/FakeCapture.h"
#include "support/FakeDevice.h"
#include "support/ManualQueue.h"
#include "support/Pixels.h"

namespace {

using namespace selvio;

using Colour = std::array<std::uint8_t, 4>;  // blue, green, red, alpha
constexpr Colour kRed{0, 0, 255, 255}, kBlue{255, 0, 0, 255}, kWhite{255, 255, 255, 255}, kAmber{0, 184, 255, 255};
constexpr Colour kGreen{133, 219, 61, 255}, kCyan{255, 230, 77, 255};

bool areNear(const Colour& a, const Colour& b) {
    return std::equal(a.begin(), a.end(), b.begin(), [](int one, int other) { return std::abs(one - other) <= 50; });
}

/// A picture whose left half has one colour and whose right half another.
std::shared_ptr<PixelBuffer> halves(const Colour& left, const Colour& right) {
    return painted(320, 568, kPixelFormat32BGRA,
                   [&](std::uint8_t* sample, int x, int, int) { std::ranges::copy(x < 160 ? left : right, sample); });
}

/// Something wakes GLib's loop all the time.
bool until(const std::function<bool()>& condition) {
    const gint64 end = g_get_monotonic_time() + 10 * G_USEC_PER_SEC;
    while (!condition() && g_get_monotonic_time() < end) g_main_context_iteration(nullptr, TRUE);
    return condition();
}

/// The view in a window, and what it shows.
struct Rig {
    explicit Rig(int wide = 360, int high = 640) {
        platform.screen = std::make_shared<FakeScreen>();  // 1080 x 1920
        platform.mainQueue = queue;
        platform.notificationCenter = std::make_shared<NotificationCenter>();
        view = GtkCaptureView::make(platform,
                                    {.parameters = parameters, .textForKey = [this](const auto&) { return text; }});
        gtk_window_set_default_size(window, wide, high);
        gtk_window_set_decorated(window, FALSE);
        gtk_window_set_child(window, view->widget());
        gtk_window_present(window);
        EXPECT_TRUE(until([&] { return gtk_widget_get_width(view->widget()) == wide; }));
    }
    ~Rig() { close(); }
    void close() { g_clear_pointer(&window, gtk_window_destroy); }
    void shoot() {
        GtkWidget* const widget = view->widget();
        GdkFrameClock* const clock = gtk_widget_get_frame_clock(widget);
        const auto painted = gdk_frame_clock_get_frame_counter(clock);
        gtk_widget_queue_draw(widget);
        EXPECT_TRUE(until([&] { return gdk_frame_clock_get_frame_counter(clock) > painted; }));
        width = gtk_widget_get_width(widget);
        height = gtk_widget_get_height(widget);
        GtkSnapshot* const snapshot = gtk_snapshot_new();
        GTK_WIDGET_GET_CLASS(widget)->snapshot(widget, snapshot);
        GskRenderNode* const node = gtk_snapshot_free_to_node(snapshot);
        const graphene_rect_t bounds{{0, 0}, {static_cast<float>(width), static_cast<float>(height)}};
        GdkTexture* const texture =
            gsk_renderer_render_texture(gtk_native_get_renderer(gtk_widget_get_native(widget)), node, &bounds);
        pixels.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
        gdk_texture_download(texture, pixels.data()->data(), 4 * static_cast<gsize>(width));
        g_object_unref(texture);
        gsk_render_node_unref(node);
    }
    /// Of the last shot, in the widget's coordinates.
    Colour at(double x, double y) const {
        return pixels.at(static_cast<std::size_t>(std::lround(y) * width + std::lround(x)));
    }
    /// Of the last shot, in the screen's points.
    Colour onScreen(Point point) const {
        const double scale = std::min(width / 1080.0, height / 1920.0);
        return at(width / 2.0 + (point.x - 540) * scale, height / 2.0 + (point.y - 960) * scale);
    }
    /// Whether this colour comes to be at a point of the screen.
    bool shows(const Colour& colour, Point point = {20, 1900}) {
        return until([&] { return shoot(), areNear(onScreen(point), colour); });
    }
    bool showFrame(const Colour& left, const Colour& right) {
        return view->showFrame(SampleBuffer::makeVideo(halves(left, right))), shows(right);
    }
    void report(SelvioFacialCaptureStatus status) const {
        SelvioFacialCaptureResults results;
        results.setHighestPriorityStatus(status);
        results.setNosePoints(std::vector<Point>{{300, 900}});
        view->showResults(results);
    }
    /// The label of a style that is shown, in a widget or behind it; null if there is none.
    static GtkWidget* label(const char* style, GtkWidget* widget) {
        if (!widget || (gtk_widget_has_css_class(widget, style) && gtk_widget_get_mapped(widget))) return widget;
        GtkWidget* const within = label(style, gtk_widget_get_first_child(widget));
        return within ? within : label(style, gtk_widget_get_next_sibling(widget));
    }
    GtkWidget* label(const char* style) { return shoot(), label(style, view->widget()); }

    const std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>("main");
    const std::shared_ptr<SelvioFacialCaptureParameters> parameters = std::make_shared<SelvioFacialCaptureParameters>();
    std::string text = "Bringen Sie das Gesicht in die Mitte";
    Platform platform;
    GtkWindow* window = GTK_WINDOW(gtk_window_new());
    std::shared_ptr<GtkCaptureView> view;
    int width = 0, height = 0;
    std::vector<Colour> pixels;
};

struct CaptureView : testing::Test {
    static void SetUpTestSuite() {
        ::setenv("GTK_A11Y", "test", 1);
        ASSERT_TRUE(gtk_init_check()) << "run it with tests/support/with-display.sh";
        g_timeout_add(
            5, [](gpointer) -> gboolean { return TRUE; }, nullptr);
    }
};

TEST_F(CaptureView, ShowsTheMirroredPictureTheOvalItsStateTheLandmarksAndThePhotograph) {
    for (const auto& [width, height] : {std::pair{360, 640}, {700, 500}}) {
        SCOPED_TRACE(width);
        Rig rig(width, height);
        EXPECT_TRUE(rig.showFrame(kRed, kBlue)) << "the frame's right is at the left";
        EXPECT_TRUE(areNear(rig.onScreen({1060, 960}), kRed));
        EXPECT_EQ(areNear(rig.at(2, 300), {}), width == 700) << "nothing but the picture beside it";
        rig.parameters->setMaxFill(900);
        const auto oval = faceOvalFor(rules::limitsOf(*rig.parameters), {1080, 1920});
        // At least and at most so many degrees of the oval are painted.
        for (const auto& [status, colour, least, most] :
             {std::tuple{SelvioFacialCaptureStatusFaceNotFound, kWhite, 36, 162},
              {SelvioFacialCaptureStatusStopSmiling, kAmber, 180, 288},
              {SelvioFacialCaptureStatusCountdown, kGreen, 349, 360}}) {
            rig.report(status);
            rig.shoot();
            int painted = 0;
            for (int degree = 0; degree < 360; ++degree) {
                const double angle = degree * std::acos(-1.0) / 180, down = degree < 180 ? oval.below : oval.above;
                const double x = oval.middle.x + oval.halfWidth * std::cos(angle);
                painted += areNear(rig.onScreen({x, oval.middle.y + down * std::sin(angle)}), colour);
            }
            EXPECT_TRUE(painted >= least && painted <= most) << painted << " for status " << status;
        }
        EXPECT_TRUE(rig.shows(kBlue, {300, 900}));
        rig.parameters->setHighlightLandmarks(true);
        EXPECT_TRUE(rig.shows(kCyan, {300, 900}));
        rig.view->showPhotograph(halves(kWhite, kRed));
        EXPECT_TRUE(rig.shows(kWhite)) << "not mirrored";
        EXPECT_TRUE(rig.shows(kWhite, {300, 900})) << "and nothing over it";
        rig.view->showPhotograph(nullptr);
        EXPECT_TRUE(rig.shows(kBlue)) << "the camera's last frame";
    }
}

TEST_F(CaptureView, IsReadableAtEverySizeInBothDirectionsAndThemesForEyesAndScreenReaders) {
    for (const auto& [dpi, width, height, direction, dark] :
         {std::tuple{192, 270, 480, GTK_TEXT_DIR_RTL, true},
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
        graphene_rect_t place{};
        float above = 0;
        for (const auto& [style, text] :
             {std::pair{"recording", std::string("\u25cf REC")}, {"guidance", rig.text}, {"countdown", "2"}}) {
            SCOPED_TRACE(style);
            GtkWidget* const label = rig.label(style);
            ASSERT_NE(label, nullptr);
            EXPECT_EQ(gtk_label_get_text(GTK_LABEL(label)), text);
            ASSERT_TRUE(gtk_widget_compute_bounds(label, rig.view->widget(), &place));
            const float left = place.origin.x, right = left + place.size.width;
            EXPECT_TRUE(left >= 0 && right <= static_cast<float>(width));
            EXPECT_GE(place.origin.y, above) << "lies over what is above it";
            above = place.origin.y + place.size.height;
            EXPECT_LE(above, static_cast<float>(height));
            const bool atTheRight = left + right > static_cast<float>(width) + 2;
            EXPECT_EQ(atTheRight, style == std::string("recording") && direction == GTK_TEXT_DIR_RTL);
            std::set<int> greens;
            for (int y = static_cast<int>(place.origin.y) + 8; y < static_cast<int>(above) - 8; ++y)
                for (int x = static_cast<int>(left) + 8; x < static_cast<int>(right) - 8; ++x)
                    greens.insert(rig.at(x, y)[1]);
            EXPECT_TRUE(!greens.empty() && *greens.rbegin() - *greens.begin() >= 140) << "a contrast of 4.5";
        }
        GtkAccessible* const guidance = GTK_ACCESSIBLE(rig.label("guidance"));
        EXPECT_TRUE(gtk_test_accessible_has_role(guidance, GTK_ACCESSIBLE_ROLE_STATUS));
        EXPECT_FALSE(gtk_test_accessible_check_property(guidance, GTK_ACCESSIBLE_PROPERTY_LABEL, rig.text.c_str()));
        rig.report(SelvioFacialCaptureStatusMoveCloser);
        EXPECT_EQ(rig.label("countdown"), nullptr);
        rig.view->showText("Pause");
        EXPECT_STREQ(gtk_label_get_text(GTK_LABEL(guidance)), "Pause");
    }
}

TEST_F(CaptureView, TellsWhenItsWindowIsNotActiveAndIsUnreadableWhileItIsCovered) {
    Rig rig;
    std::string told;
    const auto observer = std::make_shared<int>();
    auto& center = *rig.platform.notificationCenter;
    center.addObserver(observer, ApplicationNotification::WillResignActive, [&] { told += "resigned "; });
    center.addObserver(observer, ApplicationNotification::DidBecomeActive, [&] { told += "active "; });
    EXPECT_TRUE(until([&] { return gtk_window_is_active(rig.window) == TRUE; }));
    auto* const other = GTK_WINDOW(gtk_window_new());
    gtk_window_present(other);
    EXPECT_TRUE(until([&] { return rig.queue->runAll(), told == "resigned "; }));
    gtk_window_destroy(other);
    gtk_window_present(rig.window);
    EXPECT_TRUE(until([&] { return rig.queue->runAll(), told == "resigned active "; }));

    const Point edge{530, 1900};
    const auto isBlurred = [&] { return rig.shoot(), rig.onScreen(edge)[0] > 80 && rig.onScreen(edge)[2] > 80; };
    EXPECT_TRUE(rig.showFrame(kRed, kBlue) && rig.shows(kBlue, edge));
    for (int covers = 0; covers < 2; ++covers) rig.view->addSubview({1, 77, {}});
    EXPECT_TRUE(until(isBlurred));
    EXPECT_TRUE(rig.view->removeSubviewWithTag(77) && isBlurred()) << "one cover is left";
    EXPECT_TRUE(rig.view->removeSubviewWithTag(77) && rig.shows(kBlue, edge));

    const auto code = rig.view->layer()->transformedMetadataObject({"PDF417", "text", {0.1, 0.2, 0.3, 0.4}});
    EXPECT_NEAR(code.bounds.x, 648, 2) << "mirrored, as it is seen";
    EXPECT_NEAR(code.bounds.height, 768, 2);

    const auto script = std::make_shared<FakeCaptureScript>();
    const auto session = std::make_shared<FakeCaptureSession>(script);
    const auto layer = rig.view->layer();
    layer->setSession(session);
    EXPECT_EQ(layer->connection(), nullptr);
    session->addInput(std::make_shared<DeviceInput>(std::make_shared<FakeCaptureDevice>(script, "camera"), nullptr));
    EXPECT_NE(layer->connection(), nullptr) << "which may be turned before there is an output";
}

TEST_F(CaptureView, EndsBeforeOrAfterItsWidgetAndOnAnyThread) {
    for (const auto& [windowFirst, elsewhere] : {std::pair{true, true}, {true, false}, {false, true}, {false, false}}) {
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
        if (windowFirst) rig.close();
        rig.report(SelvioFacialCaptureStatusGoodFrame);
        rig.view->setActions({{"one", {}}});
        if (elsewhere) rig.view.reset();
        stop = true;
        camera.join();
        rig.view.reset();
        rig.close();
        EXPECT_TRUE(until([&] { return widget == nullptr; })) << windowFirst << elsewhere << ": nothing is left";
    }
}

}  // namespace
