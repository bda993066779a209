// What the capture view costs: processor time of this process while frames of 720x1280 come 30 times a second, beside a
// bare GTK program that hands over whole frames, and beside one that shows nothing. Then the same with an analyzer that
// gets the frames as well: how many of them it refuses because it still has another.
//
//   tests/support/with-display.sh build/bench/bin/bench_view
#include <SelvioFacialCapture/SelvioFacialCapture.h>
#include <SelvioFacialCapture/gtk/CaptureView.h>
#include <SelvioFacialCapture/gtk/MainLoop.h>
#include <SelvioFacialCapture/linux/LinuxPlatform.h>
#include <SelvioFacialCapture/simulated/SimulatedFrames.h>

#include <gtk/gtk.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <thread>

namespace {

using namespace selvio;
using Clock = std::chrono::steady_clock;

constexpr int kFrames = 300;
constexpr std::chrono::nanoseconds kFrameTime{1'000'000'000 / 30};

double processorSeconds() {
    timespec time{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// A person who moves.
std::vector<std::shared_ptr<SampleBuffer>> makeFrames(const Platform& platform, PixelFormat format) {
    const std::filesystem::path samples = SELVIO_SAMPLES;
    const auto frames =
        SimulatedFrames::make(platform.imageLoader->loadImage((samples / "astronaut.jpg").string()).value(),
                              FaceGeometry::load(samples / "astronaut.json").value(),
                              MotionScript::load(samples / "scripts/demo.json").value());
    std::vector<std::shared_ptr<SampleBuffer>> made(30);
    std::chrono::nanoseconds time = std::chrono::seconds(4);
    for (auto& each : made) {
        each = SampleBuffer::makeVideo(frames.value()->frame(time, 720, 1280, format));
        time += kFrameTime;
    }
    return made;
}

struct Measured {
    double share = 0.0;    ///< of one core
    double median = 0.0;   ///< milliseconds that `take` kept the camera's thread
    double longest = 0.0;  ///< the same
};

/// Runs GTK's loop while `take` gets the frames on a thread of their own.
Measured measure(const std::vector<std::shared_ptr<SampleBuffer>>& frames,
                 const std::function<void(const std::shared_ptr<SampleBuffer>&)>& take) {
    for (int i = 0; i < 50; ++i) g_main_context_iteration(nullptr, FALSE);
    Measured measured;
    std::vector<double> kept;
    std::atomic<bool> ended = false;
    const double before = processorSeconds();
    const auto start = Clock::now();
    std::thread camera([&] {
        for (int i = 0; i < kFrames; ++i) {
            std::this_thread::sleep_until(start + i * kFrameTime);
            const auto given = Clock::now();
            take(frames[static_cast<std::size_t>(i) % frames.size()]);
            kept.push_back(std::chrono::duration<double, std::milli>(Clock::now() - given).count());
        }
        ended = true;
        g_main_context_wakeup(nullptr);
    });
    while (!ended) g_main_context_iteration(nullptr, TRUE);
    camera.join();
    std::ranges::sort(kept);
    measured.median = kept[kept.size() / 2];
    measured.longest = kept.back();
    measured.share = (processorSeconds() - before) / std::chrono::duration<double>(Clock::now() - start).count();
    return measured;
}

GtkWindow* openWindow(GtkWidget* widget) {
    auto* const window = GTK_WINDOW(gtk_window_new());
    gtk_window_set_decorated(window, FALSE);
    gtk_window_set_default_size(window, 360, 640);
    gtk_window_set_child(window, widget);
    gtk_window_present(window);
    while (gtk_widget_get_width(widget) == 0) g_main_context_iteration(nullptr, TRUE);
    return window;
}

/// What the view replaces: whole frames, converted by nobody, scaled by GTK.
void measureBareProgram(const std::vector<std::shared_ptr<SampleBuffer>>& frames) {
    GtkWidget* const picture = gtk_picture_new();
    gtk_picture_set_can_shrink(GTK_PICTURE(picture), TRUE);
    GtkWindow* const window = openWindow(picture);
    const auto measured = measure(frames, [picture](const auto& frame) {
        const auto& pixels = frame->imageBuffer();
        GBytes* const bytes = g_bytes_new_static(pixels->data(), pixels->layout().planeBytes());
        GdkTexture* const texture =
            gdk_memory_texture_new(720, 1280, GDK_MEMORY_B8G8R8A8_PREMULTIPLIED, bytes, pixels->bytesPerRow());
        g_bytes_unref(bytes);
        g_idle_add_full(
            G_PRIORITY_DEFAULT,
            [](gpointer data) -> gboolean {
                const auto [widget, shown] = *static_cast<std::pair<GtkWidget*, GdkTexture*>*>(data);
                gtk_picture_set_paintable(GTK_PICTURE(widget), GDK_PAINTABLE(shown));
                g_object_unref(shown);
                return G_SOURCE_REMOVE;
            },
            new std::pair<GtkWidget*, GdkTexture*>(picture, texture),
            [](gpointer data) { delete static_cast<std::pair<GtkWidget*, GdkTexture*>*>(data); });
    });
    std::printf("%-36s%5.1f %% of one core\n", "bare program, whole BGRA frames", 100 * measured.share);
    gtk_window_destroy(window);
}

void measureView(const char* what, const Platform& platform, const std::vector<std::shared_ptr<SampleBuffer>>& frames,
                 bool shows, bool analyses) {
    const auto view = GtkCaptureView::make(platform);
    GtkWindow* const window = openWindow(view->widget());
    int drawn = 0;
    g_signal_connect_data(gtk_widget_get_frame_clock(view->widget()), "after-paint",
                          G_CALLBACK(+[](GdkFrameClock*, gpointer count) { ++*static_cast<int*>(count); }), &drawn,
                          nullptr, GConnectFlags{});
    const auto draining = drainFromGLib(MainQueue::shared());
    const auto analyzer =
        SelvioFacialCaptureAnalyzer::initWithParameters(std::make_shared<SelvioFacialCaptureParameters>(), platform);
    const auto delegate = std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
    delegate->detectionResults = [&](const auto& results) {
        if (shows) view->showResults(*results);
    };
    analyzer->setDelegate(delegate);
    analyzer->resume();
    int refused = 0;
    const auto measured = measure(frames, [&](const auto& frame) {
        if (shows) view->showFrame(frame);
        if (!analyses) return;
        refused += analyzer->inProgress() ? 1 : 0;
        analyzer->analyzeSampleBuffer(frame);
    });
    analyzer->stop();
    std::printf("%-36s%5.1f %%, %d of %d frames drawn, %d refused, camera kept for %.3f ms, at most %.2f ms\n", what,
                100 * measured.share, drawn, kFrames, refused, measured.median, measured.longest);
    gtk_window_destroy(window);
}

}  // namespace

int main() {
    if (gtk_init_check() == FALSE) return std::fprintf(stderr, "bench_view: there is no display\n"), 1;
    const auto platform = makeLinuxPlatform();
    const auto yuv = makeFrames(platform, kPixelFormat420v);
    const auto bgra = makeFrames(platform, kPixelFormat32BGRA);
    measureBareProgram(bgra);
    measureView("view, 420v", platform, yuv, true, false);
    measureView("view, BGRA", platform, bgra, true, false);
    measureView("analyzer", platform, yuv, false, true);
    measureView("analyzer and view", platform, yuv, true, true);
    return 0;
}
