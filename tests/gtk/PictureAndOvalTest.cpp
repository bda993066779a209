// What the view is made of: the oval, the pictures, the queue in GLib's loop.
#include <SelvioFacialCapture/gtk/MainLoop.h>

#include <gmock/gmock.h>
#include <gtk/gtk.h>

#include <future>
#include <random>

#include "platform/gtk/FaceOval.h"
#include "platform/gtk/PictureFeed.h"
#include "support/Pixels.h"

namespace {

using namespace selvio;

/// The statuses of a face on the screen; at size 1 its contour ends touch the oval's sides and its chin the lower end.
std::vector<SelvioFacialCaptureStatus> statusesOf(double size, const rules::FaceLimits& limits, Size screen) {
    const FaceOval oval = faceOvalFor(limits, screen);
    const auto at = [&](double across, double down) {
        return Point{oval.middle.x + across * size * oval.halfWidth, oval.middle.y + down * size * oval.below};
    };
    std::vector<Point> contour(17), nose(9, at(0, 0.42));
    contour[0] = at(1, 0);
    contour[8] = at(0, 1);
    contour[16] = at(-1, 0);
    nose[2] = at(-0.2, 0.42);
    nose[6] = at(0.2, 0.42);
    return rules::checkFace({{contour, nose, {}}, limits, screen.height, screen.width, false}).statuses;
}

TEST(FaceOval, AFaceThatFillsItPassesEveryCheckOnEveryScreen) {
    std::mt19937 random(11);
    const auto between = [&](int least, int most) { return std::uniform_int_distribution(least, most)(random); };
    int possible = 0;
    for (int i = 0; i < 3000; ++i) {
        SelvioFacialCaptureParameters parameters;
        parameters.setMinFill(between(400, 800));
        parameters.setMaxFill(between(500, 900));
        parameters.setRoll(between(0, 990));  // 1000 leaves no room for rounding
        parameters.setPitch(between(0, 1000));
        parameters.setYaw(between(0, 1000));
        const auto limits = rules::limitsOf(parameters);
        const Size size{static_cast<double>(between(320, 1440)), static_cast<double>(between(1440, 2560))};
        const double widest = size.height / size.width > 1.78 ? 1 / 1.218 : 0.78;  // within the margins
        if (static_cast<double>(limits.minFill) / 1000 >= widest) continue;
        ++possible;
        EXPECT_THAT(statusesOf(1.0, limits, size), testing::IsEmpty()) << limits.minFill << ' ' << limits.maxFill;
        EXPECT_THAT(statusesOf(0.4, limits, size), testing::Contains(SelvioFacialCaptureStatusMoveCloser));
        EXPECT_FALSE(statusesOf(1.5, limits, size).empty());
    }
    EXPECT_GT(possible, 2000);
}

/// Blue, or the luma, grows across, and red down; of the other format the left half is red.
std::shared_ptr<PixelBuffer> ramp(int width, int height, PixelFormat format) {
    return painted(width, height, format, [&](std::uint8_t* sample, int x, int y, int plane) {
        const int across = 255 * x / (width - 1);
        std::array pixel{across, 128, 255 * y / (height - 1), 255};
        if (format == kPixelFormat32ARGB) std::ranges::reverse(pixel);
        if (format == kPixelFormat420v) pixel = {plane == 0 ? 16 + 219 * across / 255 : 128, 4 * x < width ? 166 : 90};
        std::copy_n(pixel.begin(), format == kPixelFormat420v ? plane + 1 : 4, sample);
    });
}

TEST(PictureScaler, ShowsTheMiddleThatTheScreenShowsMirrored) {
    PictureScaler scaler;
    // A frame's size, the screen's, and how much of the frame's width and height is seen.
    for (const auto& [width, height, screen, across, down] :
         {std::tuple{720, 1280, Size{375, 812}, 375.0 * 1280 / 812 / 720, 1.0}, {480, 800, {600, 800}, 1.0, 0.8}}) {
        for (const PixelFormat format : {kPixelFormat32BGRA, kPixelFormat32ARGB, kPixelFormat420v}) {
            for (const bool mirrored : {true, false}) {
                SCOPED_TRACE(testing::Message() << width << " on " << screen.width << ", " << format << mirrored);
                const auto picture = scaler.scaled(*ramp(width, height, format), {181, 321, screen, mirrored});
                for (const auto& [x, y] : {std::pair{3, 5}, {100, 160}, {175, 40}, {20, 310}}) {
                    const auto* const pixel = sampleAt(*picture, x, y);
                    const double u = (mirrored ? 180 - x : x) / 180.0;
                    EXPECT_NEAR(pixel[0], 255 * (0.5 + (u - 0.5) * across), 6);
                    EXPECT_NEAR(pixel[3], 255, 3);
                    if (format == kPixelFormat420v) {
                        EXPECT_EQ(pixel[2] > pixel[0], u < 0.5);
                    } else {
                        EXPECT_NEAR(pixel[2], 255 * (0.5 + (y / 320.0 - 0.5) * down), 6);
                    }
                }
            }
        }
    }
    EXPECT_EQ(scaler.scaled(*ramp(72, 128, kPixelFormat32BGRA), {.screen = {9, 16}}), nullptr) << "no size";
}

TEST(PictureFeed, HandsOnTheNewestAndNeverWaits) {
    std::promise<void> started, goOn;
    int announced = 0;
    const auto feed = std::make_shared<PictureFeed>(Size{9, 16}, [&] {
        if (++announced > 1) return;
        started.set_value();
        goOn.get_future().wait();
    });
    const auto show = [&](int level) {
        auto frame = PixelBuffer::create(9, 16, kPixelFormat32BGRA);
        std::fill_n(frame->data(), frame->layout().byteSize(), static_cast<std::uint8_t>(level));
        feed->show(frame);
    };
    feed->setSize(9, 16);
    show(1);
    started.get_future().wait();  // now the feed's thread is held up
    EXPECT_EQ(feed->take().pixels->data()[0], 1);
    for (int level = 2; level <= 200; ++level) show(level);
    goOn.set_value();
    PictureFeed::Picture picture;
    while (!picture.pixels) picture = feed->take();
    EXPECT_EQ(picture.pixels->data()[0], 200) << "the first after the one that was being shown";
}

TEST(MainLoop, DrainsTheQueueInGLibsLoopUntilItIsReleased) {
    const auto queue = std::make_shared<MainQueue>();
    auto draining = drainFromGLib(queue);
    std::vector<int> order;
    queue->asyncAfter(std::chrono::milliseconds(10), [&] {
        order.push_back(1);
        g_main_context_iteration(nullptr, FALSE);  // as a dialogue would
    });
    queue->asyncAfter(std::chrono::milliseconds(30), [&] { order.push_back(2); });
    while (order.size() < 2) g_main_context_iteration(nullptr, TRUE);
    const auto other = std::async(std::launch::async, [&] { queue->async([&] { order.push_back(3); }); });
    while (order.size() < 3) g_main_context_iteration(nullptr, TRUE);  // which nothing else wakes
    draining.reset();
    queue->async([&] { order.push_back(4); });
    while (g_main_context_iteration(nullptr, FALSE) == TRUE) {
    }
    EXPECT_THAT(order, testing::ElementsAre(1, 2, 3));
}

}  // namespace
