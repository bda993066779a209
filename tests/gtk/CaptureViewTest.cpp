// The real widget in a real window: what is on the screen, and what a screen reader is told.
#include <SelvioFacialCapture/gtk/CaptureView.h>

#include <gmock/gmock.h>
#include <gtk/gtk.h>

#include <cmath>
#include <thread>

#include "platform/gtk/FaceOval.h"
#include "support/FakeDevice.h"
#include "support/LogCapture.h"
#include "support/ManualQueue.h"

namespace selvio {
namespace {

constexpr int kWidth = 360;
constexpr int kHeight = 640;

struct Colour {
    int red = 0;
    int green = 0;
    int blue = 0;
    [[nodiscard]] bool isNear(const Colour& other, int most = 40) const {
        return std::abs(red - other.red) <= most && std::abs(green - other.green) <= most &&
               std::abs(blue - other.blue) <= most;
    }
    [[nodiscard]] double luminance() const {
        const auto linear = [](int value) {
            const double v = value / 255.0;
            return v <= 0.03928 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
        };
        return 0.2126 * linear(red) + 0.7152 * linear(green) + 0.0722 * linear(blue);
    }
};
constexpr Colour kRed{255, 0, 0};
constexpr Colour kBlue{0, 0, 255};
constexpr Colour kGreen{61, 219, 133};

/// What the widget shows, in its own coordinates.
struct Screenshot {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> pixels;
    [[nodiscard]] Colour at(double x, double y) const {
        const auto* const pixel =
            pixels.data() + 4 * (static_cast<std::size_t>(std::lround(y)) * static_cast<std::size_t>(width) +
                                 static_cast<std::size_t>(std::lround(x)));
        return {pixel[2], pixel[1], pixel[0]};
    }
};

struct Rig {
    explicit Rig(int width = kWidth, int height = kHeight, std::string text = "") {
        platform.screen = screen;
        platform.mainQueue = queue;
        platform.notificationCenter = std::make_shared<NotificationCenter>();
        view = GtkCaptureView::make(platform, {.parameters = parameters, .textForKey = [text](const std::string& key) {
                                                   return text.empty() ? "text of " + key : text;
                                               }});
        g_object_add_weak_pointer(G_OBJECT(window), reinterpret_cast<gpointer*>(&window));
        gtk_window_set_default_size(window, width, height);
        gtk_window_set_decorated(window, FALSE);
        gtk_window_set_child(window, view->widget());
        gtk_window_present(window);
        EXPECT_TRUE(until([this] { return gtk_widget_get_width(GTK_WIDGET(window)) > 0; }));
    }
    ~Rig() {
        if (window != nullptr) gtk_window_destroy(window);
        gtk_widget_set_default_direction(GTK_TEXT_DIR_LTR);
    }

    static bool until(const std::function<bool()>& condition) {
        const gint64 end = g_get_monotonic_time() + 10 * G_USEC_PER_SEC;
        guint timer = g_timeout_add(
            5, [](gpointer) -> gboolean { return TRUE; }, nullptr);  // wakes the loop
        while (!condition() && g_get_monotonic_time() < end) g_main_context_iteration(nullptr, TRUE);
        g_source_remove(timer);
        return condition();
    }
    /// Lets GTK lay out and draw what was changed.
    void settle() const {
        int painted = 0;
        GdkFrameClock* const clock = gtk_widget_get_frame_clock(view->widget());
        if (clock == nullptr) return;
        const gulong handler = g_signal_connect_data(
            clock, "after-paint", G_CALLBACK(+[](GdkFrameClock*, gpointer count) { ++*static_cast<int*>(count); }),
            &painted, nullptr, GConnectFlags{});
        gtk_widget_queue_draw(view->widget());
        EXPECT_TRUE(until([&] { return painted > 0; }));
        g_signal_handler_disconnect(clock, handler);
    }
    [[nodiscard]] Screenshot shoot() const {
        settle();
        GtkWidget* const widget = view->widget();
        GtkSnapshot* const snapshot = gtk_snapshot_new();
        GtkWidgetClass* const widgetClass = GTK_WIDGET_GET_CLASS(widget);
        Screenshot shot{gtk_widget_get_width(widget), gtk_widget_get_height(widget), {}};
        const GdkRGBA black{0, 0, 0, 1};
        const graphene_rect_t bounds =
            GRAPHENE_RECT_INIT(0, 0, static_cast<float>(shot.width), static_cast<float>(shot.height));
        gtk_snapshot_append_color(snapshot, &black, &bounds);
        widgetClass->snapshot(widget, snapshot);
        GskRenderNode* const node = gtk_snapshot_free_to_node(snapshot);
        GdkTexture* const texture =
            gsk_renderer_render_texture(gtk_native_get_renderer(gtk_widget_get_native(widget)), node, &bounds);
        shot.pixels.resize(static_cast<std::size_t>(4 * shot.width * shot.height));
        gdk_texture_download(texture, shot.pixels.data(), static_cast<gsize>(4 * shot.width));
        g_object_unref(texture);
        gsk_render_node_unref(node);
        return shot;
    }
    /// A picture whose left half has one colour and whose right half another.
    static std::shared_ptr<PixelBuffer> halves(Colour left, Colour right) {
        auto picture = PixelBuffer::create(kWidth, kHeight, kPixelFormat32BGRA);
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                const Colour& colour = x < kWidth / 2 ? left : right;
                std::uint8_t* const pixel = picture->data() + y * static_cast<int>(picture->bytesPerRow()) + 4 * x;
                pixel[0] = static_cast<std::uint8_t>(colour.blue);
                pixel[1] = static_cast<std::uint8_t>(colour.green);
                pixel[2] = static_cast<std::uint8_t>(colour.red);
                pixel[3] = 255;
            }
        }
        return picture;
    }
    /// Shows a frame and waits until it is on the screen.
    void show(Colour left, Colour right) {
        view->showFrame(SampleBuffer::makeVideo(halves(left, right)));
        EXPECT_TRUE(until([&] { return corner().isNear(right); }));
    }
    /// The picture at its lower left corner.
    [[nodiscard]] Colour corner() const {
        const auto shot = shoot();
        const double scale = std::min(shot.width / 1080.0, shot.height / 1920.0);
        return shot.at((shot.width - 1080 * scale) / 2 + 3, (shot.height + 1920 * scale) / 2 - 4);
    }
    void report(SelvioFacialCaptureStatus status) const {
        SelvioFacialCaptureResults results;
        results.setHighestPriorityStatus(status);
        results.setNosePoints(std::vector<Point>{{300, 900}});
        view->showResults(results);
    }
    /// The first visible label of a style, and where it is in the widget.
    struct Label {
        GtkWidget* widget = nullptr;
        std::string text;
        graphene_rect_t place{};
    };
    [[nodiscard]] Label label(const char* style) const {
        settle();
        Label found;
        find(view->widget(), style, found);
        return found;
    }
    void find(GtkWidget* widget, const char* style, Label& found) const {
        if (gtk_widget_has_css_class(widget, style) == TRUE && gtk_widget_get_mapped(widget) == TRUE) {
            found = {widget, gtk_label_get_text(GTK_LABEL(widget)), {}};
            EXPECT_TRUE(gtk_widget_compute_bounds(widget, view->widget(), &found.place));
        }
        for (GtkWidget* child = gtk_widget_get_first_child(widget); child != nullptr;
             child = gtk_widget_get_next_sibling(child))
            find(child, style, found);
    }

    const std::shared_ptr<FakeScreen> screen = std::make_shared<FakeScreen>(Size{1080, 1920});
    const std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>("main");
    const std::shared_ptr<SelvioFacialCaptureParameters> parameters = std::make_shared<SelvioFacialCaptureParameters>();
    Platform platform;
    GtkWindow* window = GTK_WINDOW(gtk_window_new());
    std::shared_ptr<GtkCaptureView> view;
};

class CaptureView : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ::setenv("GTK_A11Y", "test", 1);
        ASSERT_TRUE(gtk_init_check()) << "run it with tests/support/with-display.sh";
    }
};

TEST_F(CaptureView, TellsTheStateByTheOvalsColourAndLineWhereTheParametersPutIt) {
    struct Case {
        SelvioFacialCaptureStatus status;
        Colour colour;
        double leastShare, mostShare;  // of the oval that is painted
    };
    const std::vector<Case> cases{{SelvioFacialCaptureStatusFaceNotFound, {255, 255, 255}, 0.1, 0.4},
                                  {SelvioFacialCaptureStatusNotCentered, {255, 184, 0}, 0.5, 0.8},
                                  {SelvioFacialCaptureStatusStopSmiling, {255, 184, 0}, 0.5, 0.8},
                                  {SelvioFacialCaptureStatusGoodFrame, kGreen, 0.97, 1.0},
                                  {SelvioFacialCaptureStatusCountdown, kGreen, 0.97, 1.0}};
    for (const auto& [width, height] : {std::pair{kWidth, kHeight}, {700, 500}}) {
        Rig rig(width, height);
        rig.show(kRed, kBlue);
        for (const std::int64_t most : {725, 900}) {
            rig.parameters->setMaxFill(most);
            const auto oval = faceOvalFor(rules::limitsOf(*rig.parameters), {1080, 1920});
            for (const Case& c : cases) {
                SCOPED_TRACE(testing::Message() << width << 'x' << height << ", status " << c.status << ", " << most);
                rig.report(c.status);
                const auto shot = rig.shoot();
                const double scale = std::min(shot.width / 1080.0, shot.height / 1920.0);
                int painted = 0;
                for (int degree = 0; degree < 360; ++degree) {
                    const double angle = degree * std::acos(-1.0) / 180;
                    const double reach = degree < 180 ? oval.below : oval.above;
                    const double x = oval.middle.x + oval.halfWidth * std::cos(angle) - 540;
                    const double y = oval.middle.y + reach * std::sin(angle) - 960;
                    const auto seen = shot.at(shot.width / 2.0 + x * scale, shot.height / 2.0 + y * scale);
                    painted += seen.isNear(c.colour, 60) ? 1 : 0;
                }
                EXPECT_GE(painted / 360.0, c.leastShare);
                EXPECT_LE(painted / 360.0, c.mostShare);
            }
        }
    }
}

TEST_F(CaptureView, ShowsThePictureAsInAMirrorTheLandmarksAndThePhotograph) {
    Rig rig(700, 500);  // wider than the picture, which is 281 wide and begins at 209
    rig.show(kRed, kBlue);
    const auto shot = rig.shoot();
    EXPECT_TRUE(shot.at(215, 250).isNear(kBlue)) << "the frame's right is at the left";
    EXPECT_TRUE(shot.at(484, 250).isNear(kRed));
    EXPECT_TRUE(shot.at(204, 250).isNear({})) << "beside the picture there is nothing";
    EXPECT_TRUE(shot.at(496, 250).isNear({}));

    const double x = 350 + (300 - 540) * 500 / 1920.0;
    const double y = 900 * 500 / 1920.0;
    rig.report(SelvioFacialCaptureStatusFaceYaw);
    EXPECT_TRUE(rig.shoot().at(x, y).isNear(kBlue));
    rig.parameters->setHighlightLandmarks(true);
    EXPECT_TRUE(rig.shoot().at(x, y).isNear({77, 230, 255}));

    rig.view->showPhotograph(Rig::halves({200, 200, 200}, kRed));
    EXPECT_TRUE(Rig::until([&] { return rig.corner().isNear({200, 200, 200}); })) << "not mirrored";
    EXPECT_TRUE(rig.shoot().at(x, y).isNear({200, 200, 200})) << "no landmarks over it";
    rig.view->showPhotograph(nullptr);
    EXPECT_TRUE(Rig::until([&] { return rig.corner().isNear(kBlue); })) << "the camera's last frame";
}

TEST_F(CaptureView, IsReadableAtEverySizeInBothDirectionsAndThemes) {
    const std::string longest = "Bringen Sie das Gesicht in die Mitte";
    GtkSettings* const settings = gtk_settings_get_default();
    for (const int dpi : {96, 192}) {
        for (const auto& [width, height] : {std::pair{270, 480}, {360, 640}}) {
            for (const bool rightToLeft : {false, true}) {
                for (const bool dark : {false, true}) {
                    SCOPED_TRACE(testing::Message()
                                 << dpi << " dpi, " << width << 'x' << height << (rightToLeft ? ", right to left" : "")
                                 << (dark ? ", dark" : ""));
                    g_object_set(settings, "gtk-xft-dpi", dpi * 1024, "gtk-application-prefer-dark-theme", dark,
                                 nullptr);
                    gtk_widget_set_default_direction(rightToLeft ? GTK_TEXT_DIR_RTL : GTK_TEXT_DIR_LTR);
                    Rig rig(width, height, longest);
                    rig.show({255, 255, 255}, {255, 255, 255});
                    rig.report(SelvioFacialCaptureStatusCountdown);
                    rig.view->setRecording(true);
                    rig.view->showCountdown(2, 2);
                    ASSERT_TRUE(Rig::until([&] { return rig.label("countdown").place.size.width > 0; }));
                    const auto shot = rig.shoot();

                    const auto guidance = rig.label("guidance");
                    const auto mark = rig.label("recording");
                    const auto countdown = rig.label("countdown");
                    EXPECT_EQ(guidance.text, longest);
                    EXPECT_EQ(mark.text, "\u25cf REC");
                    EXPECT_EQ(countdown.text, "2");
                    for (const auto* label : {&guidance, &mark, &countdown}) {
                        const auto& place = label->place;
                        EXPECT_GE(place.origin.x, 0) << label->text;
                        EXPECT_LE(place.origin.x + place.size.width, static_cast<float>(width)) << label->text;
                        EXPECT_LE(place.origin.y + place.size.height, static_cast<float>(height)) << label->text;
                        EXPECT_FALSE(pango_layout_is_ellipsized(gtk_label_get_layout(GTK_LABEL(label->widget))));
                        double lightest = 0;
                        double darkest = 1;
                        for (int y = 8; y < static_cast<int>(place.size.height) - 8; ++y) {
                            for (int x = 8; x < static_cast<int>(place.size.width) - 8; ++x) {
                                const double seen = shot.at(static_cast<double>(place.origin.x) + x,
                                                            static_cast<double>(place.origin.y) + y)
                                                        .luminance();
                                lightest = std::max(lightest, seen);
                                darkest = std::min(darkest, seen);
                            }
                        }
                        EXPECT_GE((lightest + 0.05) / (darkest + 0.05), 4.5) << label->text;
                    }
                    EXPECT_EQ(mark.place.origin.x > static_cast<float>(width) / 2, rightToLeft);
                    graphene_rect_t overlap;
                    EXPECT_FALSE(graphene_rect_intersection(&guidance.place, &mark.place, &overlap));
                    EXPECT_FALSE(graphene_rect_intersection(&guidance.place, &countdown.place, &overlap))
                        << guidance.place.origin.y << '+' << guidance.place.size.height << ' '
                        << countdown.place.origin.y;

                    int pressed = 0;
                    rig.view->setActions({{"Foto aufnehmen", [&] { ++pressed; }}});
                    GtkWidget* const button = gtk_window_get_focus(rig.window);
                    ASSERT_TRUE(GTK_IS_BUTTON(button)) << "the keyboard is where one can act";
                    gtk_widget_activate(button);
                    EXPECT_TRUE(Rig::until([&] { return pressed == 1; }));
                }
            }
        }
    }
    g_object_set(settings, "gtk-xft-dpi", 96 * 1024, "gtk-application-prefer-dark-theme", FALSE, nullptr);
}

TEST_F(CaptureView, TellsScreenReadersTheGuidanceAndEndsTheCountdownWithAnyOtherStatus) {
    Rig rig;
    rig.view->showCountdown(3, 3);
    for (const auto status : {SelvioFacialCaptureStatusCountdown, SelvioFacialCaptureStatusMoveCloser}) {
        rig.report(status);
        const auto guidance = rig.label("guidance");
        ASSERT_NE(guidance.widget, nullptr);
        EXPECT_TRUE(gtk_test_accessible_has_role(GTK_ACCESSIBLE(guidance.widget), GTK_ACCESSIBLE_ROLE_STATUS));
        const std::string text = "text of " + SelvioFacialCaptureResults::localizeKeyFrom(status).value_or("");
        EXPECT_EQ(guidance.text, text);
        char* const difference = gtk_test_accessible_check_property(GTK_ACCESSIBLE(guidance.widget),
                                                                    GTK_ACCESSIBLE_PROPERTY_LABEL, text.c_str());
        EXPECT_EQ(difference, nullptr) << difference;
        g_free(difference);
        EXPECT_EQ(rig.label("countdown").widget != nullptr, status == SelvioFacialCaptureStatusCountdown);
    }
}

TEST_F(CaptureView, IsUnreadableWhileTheWindowIsNotActive) {
    Rig rig;
    std::vector<std::string> told;
    const auto observer = std::make_shared<int>();
    const auto add = [&](ApplicationNotification notification, const char* name) {
        rig.platform.notificationCenter->addObserver(observer, notification,
                                                     [&told, name] { told.emplace_back(name); });
    };
    add(ApplicationNotification::WillResignActive, "resigned");
    add(ApplicationNotification::DidBecomeActive, "active");
    ASSERT_TRUE(Rig::until([&] { return gtk_window_is_active(rig.window) == TRUE; }));
    auto* const other = GTK_WINDOW(gtk_window_new());
    gtk_window_present(other);
    ASSERT_TRUE(Rig::until([&] { return gtk_window_is_active(rig.window) == FALSE; }));
    rig.queue->runAll();
    EXPECT_THAT(told, testing::ElementsAre("resigned"));
    gtk_window_destroy(other);
    gtk_window_present(rig.window);
    ASSERT_TRUE(Rig::until([&] { return gtk_window_is_active(rig.window) == TRUE; }));
    rig.queue->runAll();
    EXPECT_THAT(told, testing::ElementsAre("resigned", "active"));

    rig.show(kRed, kBlue);
    rig.report(SelvioFacialCaptureStatusGoodFrame);
    const auto sharpAt = [&] { return rig.shoot().at(kWidth / 2.0 - 6, 600); };
    EXPECT_TRUE(sharpAt().isNear(kBlue, 5));
    rig.view->addSubview({1, 77, {}});
    EXPECT_TRUE(rig.shoot().at(180, 600).isNear({191, 191, 191})) << "covered at once";
    EXPECT_TRUE(Rig::until([&] { return !sharpAt().isNear({191, 191, 191}); }));
    EXPECT_FALSE(sharpAt().isNear(kBlue, 30)) << "the edge is blurred";
    EXPECT_TRUE(rig.view->removeSubviewWithTag(77));
    EXPECT_TRUE(Rig::until([&] { return sharpAt().isNear(kBlue, 5); }));
}

TEST_F(CaptureView, EndsBeforeOrAfterItsWidgetAndOnAnyThread) {
    for (const bool windowFirst : {true, false}) {
        for (const bool elsewhere : {true, false}) {
            SCOPED_TRACE(testing::Message() << windowFirst << elsewhere);
            Rig rig;
            GtkWidget* widget = rig.view->widget();
            g_object_add_weak_pointer(G_OBJECT(widget), reinterpret_cast<gpointer*>(&widget));
            std::atomic<bool> stop = false;
            std::thread camera([&stop, view = rig.view]() mutable {
                while (!stop) view->showFrame(SampleBuffer::makeVideo(PixelBuffer::create(72, 128, kPixelFormat420v)));
                view.reset();
            });
            rig.view->showCountdown(2, 3);
            EXPECT_TRUE(Rig::until([&] { return rig.label("countdown").widget != nullptr; }));
            if (windowFirst) gtk_window_destroy(rig.window);
            rig.report(SelvioFacialCaptureStatusGoodFrame);
            rig.view->setActions({{"one", {}}});
            if (elsewhere) rig.view.reset();
            stop = true;
            camera.join();
            rig.view.reset();
            if (!windowFirst) gtk_window_destroy(rig.window);
            EXPECT_TRUE(Rig::until([&] { return widget == nullptr; })) << "nothing is left";
        }
    }
}

TEST_F(CaptureView, PlacesWhatIsFoundInAFrameAsItIsSeen) {
    Rig rig;
    const MetadataObject code{"PDF417", "text", {0.1, 0.2, 0.3, 0.4}};
    const auto layer = rig.view->layer();
    EXPECT_EQ(layer->connection(), nullptr) << "no camera";
    const auto whole = layer->transformedMetadataObject(code);
    EXPECT_THAT((std::vector{whole.bounds.x, whole.bounds.y, whole.bounds.width, whole.bounds.height}),
                testing::Pointwise(testing::DoubleNear(1e-6), {648.0, 384.0, 324.0, 768.0}));
    rig.view->showFrame(SampleBuffer::makeVideo(PixelBuffer::create(1080, 1440, kPixelFormat32BGRA)));
    const auto cut = layer->transformedMetadataObject(code);  // 1440 of 1920 lines high: 1440 points wide
    EXPECT_THAT((std::vector{cut.bounds.x, cut.bounds.y, cut.bounds.width, cut.bounds.height}),
                testing::Pointwise(testing::DoubleNear(1e-6), {684.0, 384.0, 432.0, 768.0}));
    LogCapture log;
    EXPECT_EQ(GtkCaptureView::make(Platform{}), nullptr);
    EXPECT_EQ(log.take().size(), 1U);
}

}  // namespace
}  // namespace selvio
