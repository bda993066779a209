// What the view is made of: the oval, the pictures, the queue in GLib's loop.
#include <SelvioFacialCapture/gtk/MainLoop.h>

#include <gmock/gmock.h>
#include <gtk/gtk.h>

#include <cmath>
#include <future>
#include <random>

#include "platform/gtk/FaceOval.h"
#include "platform/gtk/PictureFeed.h"

namespace selvio {
namespace {

/// A face as the detector would report it, whose contour ends touch the oval's sides and whose chin its lower end.
FaceObservation faceThatFills(const FaceOval& oval, const rules::PreviewGeometry& geometry, double size) {
    const double halfWidth = oval.halfWidth * size;
    const double below = oval.below * size;
    const Rect rect{oval.middle.x - halfWidth, oval.middle.y, 2 * halfWidth, below};
    const auto points = [&](std::vector<Point> screen) {
        for (Point& point : screen) point = {(point.y - rect.y) / rect.height, (point.x - rect.x) / rect.width};
        return FaceLandmarkRegion{screen};
    };
    FaceLandmarks landmarks;
    std::vector<Point> contour;
    for (int i = 0; i < 17; ++i) {  // along the lower half, from the right to the left
        const double angle = std::acos(-1.0) * i / 16;
        contour.push_back({oval.middle.x + halfWidth * std::cos(angle), oval.middle.y + below * std::sin(angle)});
    }
    landmarks.faceContour = points(contour);
    std::vector<Point> nose(9, {oval.middle.x, oval.middle.y + 0.42 * below});
    nose[2].x -= halfWidth / 5;
    nose[6].x += halfWidth / 5;
    landmarks.nose = points(nose);
    return {.boundingBox = {(rect.y + geometry.yAdjuster) * geometry.hAdjuster / geometry.biggerScreenSide,
                            (rect.x + geometry.xAdjuster) * geometry.wAdjuster / geometry.smallerScreenSide,
                            rect.height * geometry.hAdjuster / geometry.biggerScreenSide,
                            rect.width * geometry.wAdjuster / geometry.smallerScreenSide},
            .landmarks = landmarks};
}

TEST(FaceOval, AFaceThatFillsItPassesEveryCheckOnEveryScreen) {
    std::mt19937 random(11);
    const auto between = [&](int least, int most) { return std::uniform_int_distribution(least, most)(random); };
    int passed = 0;
    for (int i = 0; i < 3000; ++i) {
        SelvioFacialCaptureParameters parameters;
        parameters.setMinFill(between(400, 800));
        parameters.setMaxFill(between(500, 900));
        parameters.setRoll(between(0, 990));  // 1000 leaves no room for rounding
        parameters.setPitch(between(0, 1000));
        parameters.setYaw(between(0, 1000));
        const auto limits = rules::limitsOf(parameters);
        const Size screen{static_cast<double>(between(320, 1440)), static_cast<double>(between(1440, 2560))};
        rules::PreviewGeometry geometry;
        geometry.setScreen(screen);
        geometry.setResolution({720, static_cast<double>(between(960, 1600))});
        const auto statusesOf = [&](double size) {
            return rules::judgeFaces({faceThatFills(faceOvalFor(limits, screen), geometry, size)}, geometry, limits,
                                     false)
                .statuses;
        };
        const bool tall = screen.height / screen.width > 1.78;
        const double widest = tall ? 1.0 / 1.218 : 0.78;                     // within the margins
        if (static_cast<double>(limits.minFill) / 1000 >= widest) continue;  // no centred face is wide enough
        ++passed;
        EXPECT_THAT(statusesOf(1.0), testing::IsEmpty())
            << limits.minFill << ' ' << limits.maxFill << ' ' << screen.width << 'x' << screen.height;
        EXPECT_THAT(statusesOf(0.4), testing::Contains(SelvioFacialCaptureStatusMoveCloser));
        EXPECT_FALSE(statusesOf(1.5).empty());
    }
    EXPECT_GT(passed, 2000);
}

std::shared_ptr<PixelBuffer> ramp(int width, int height, PixelFormat format) {
    auto frame = PixelBuffer::create(width, height, format);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const int across = 255 * x / (width - 1);
            const int down = 255 * y / (height - 1);
            std::uint8_t* const row = frame->data() + static_cast<std::size_t>(y) * frame->bytesPerRow();
            if (format == kPixelFormat420v) {
                row[x] = static_cast<std::uint8_t>(16 + 219 * across / 255);
                frame->data(1)[static_cast<std::size_t>(y / 2) * frame->bytesPerRow(1) + static_cast<std::size_t>(x)] =
                    128;
            } else {  // blue grows across and red down; green is half
                const bool argb = format == kPixelFormat32ARGB;
                row[4 * x + (argb ? 3 : 0)] = static_cast<std::uint8_t>(across);
                row[4 * x + (argb ? 2 : 1)] = 128;
                row[4 * x + (argb ? 1 : 2)] = static_cast<std::uint8_t>(down);
                row[4 * x + (argb ? 0 : 3)] = 255;
            }
        }
    }
    return frame;
}

TEST(PictureScaler, ShowsTheMiddleThatTheScreenShowsMirrored) {
    PictureScaler scaler;
    struct Case {
        int frameWidth, frameHeight;
        Size screen;
        double partWidth, partHeight;  // of the frame
    };
    const std::vector<Case> cases{{720, 1280, {1080, 1920}, 1.0, 1.0},
                                  {720, 1280, {375, 812}, 375.0 * 1280 / 812 / 720, 1.0},
                                  {480, 800, {600, 800}, 1.0, 480.0 * 800 / 600 / 800},
                                  {1280, 720, {1080, 1920}, 720.0 * 1080 / 1920 / 1280, 1.0}};
    for (const auto& c : cases) {
        for (const PixelFormat format : {kPixelFormat32BGRA, kPixelFormat32ARGB, kPixelFormat420v}) {
            for (const bool mirrored : {true, false}) {
                SCOPED_TRACE(testing::Message()
                             << c.frameWidth << 'x' << c.frameHeight << " on " << c.screen.width << 'x'
                             << c.screen.height << ", format " << format << (mirrored ? ", mirrored" : ""));
                const auto picture =
                    scaler.scaled(*ramp(c.frameWidth, c.frameHeight, format),
                                  {.width = 181, .height = 321, .screen = c.screen, .mirrored = mirrored});
                ASSERT_TRUE(picture);
                for (const auto& [x, y] : {std::pair{3, 5}, {90, 160}, {175, 40}, {20, 310}}) {
                    const std::uint8_t* const pixel = picture->data() +
                                                      static_cast<std::size_t>(y) * picture->bytesPerRow() +
                                                      4 * static_cast<std::size_t>(x);
                    const double u = (mirrored ? 180 - x : x) / 180.0;
                    EXPECT_NEAR(pixel[0], 255 * (0.5 + (u - 0.5) * c.partWidth), 6);
                    EXPECT_NEAR(pixel[3], 255, 3);
                    if (format == kPixelFormat420v) continue;
                    EXPECT_NEAR(pixel[1], 128, 3);
                    EXPECT_NEAR(pixel[2], 255 * (0.5 + (y / 320.0 - 0.5) * c.partHeight), 6);
                }
            }
        }
    }
    EXPECT_EQ(scaler.scaled(*ramp(72, 128, kPixelFormat32BGRA), {.screen = {9, 16}}), nullptr) << "no size";
}

TEST(PictureFeed, HandsOnTheNewestAndNeverWaits) {
    std::promise<void> started;
    std::promise<void> goOn;
    int announced = 0;
    const auto feed = std::make_shared<PictureFeed>(Size{9, 16}, [&] {
        if (++announced == 1) {
            started.set_value();
            goOn.get_future().wait();
        }
    });
    feed->setSize(9, 16);
    const auto frameOf = [](std::uint8_t level) {
        auto frame = PixelBuffer::create(9, 16, kPixelFormat32BGRA);
        std::fill_n(frame->data(), frame->layout().planeBytes(), level);
        return frame;
    };
    feed->show(frameOf(1));
    started.get_future().wait();  // now the feed's thread is held up
    EXPECT_EQ(feed->take().pixels->data()[0], 1);
    for (std::uint8_t level = 2; level <= 200; ++level) feed->show(frameOf(level));
    goOn.set_value();
    PictureFeed::Picture picture;
    while (!picture.pixels) picture = feed->take();
    EXPECT_EQ(picture.pixels->data()[0], 200);
}

TEST(MainLoop, DrainsTheQueueInGLibsLoopUntilItIsReleased) {
    const auto queue = std::make_shared<MainQueue>();
    auto draining = drainFromGLib(queue);
    std::vector<int> order;
    std::thread other([&] { queue->async([&] { order.push_back(1); }); });
    queue->asyncAfter(std::chrono::milliseconds(30), [&] { order.push_back(3); });
    queue->asyncAfter(std::chrono::milliseconds(10), [&] {
        order.push_back(2);
        EXPECT_TRUE(queue->isCurrent());
        g_main_context_iteration(nullptr, FALSE);  // as a dialogue would
    });
    while (order.size() < 3) g_main_context_iteration(nullptr, TRUE);
    other.join();
    EXPECT_THAT(order, testing::ElementsAre(1, 2, 3));
    draining.reset();
    queue->async([&] { order.push_back(4); });
    while (g_main_context_iteration(nullptr, FALSE) == TRUE) {
    }
    EXPECT_EQ(order.size(), 3U);
}

}  // namespace
}  // namespace selvio
