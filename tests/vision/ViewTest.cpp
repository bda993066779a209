// The way from a buffer to the upright view.
#include "platform/linux/vision/GreyView.h"
#include "vision/TestPictures.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

namespace selvio::test {
namespace {

TEST(ViewTransform, PutsEachOrientationUpright) {
    constexpr double x = 0.2;
    constexpr double y = 0.3;
    // The detector's x of a frame with the orientation applied runs down the view, its y (upwards) across.
    const Point expected[] = {{1 - y, x}, {1 - y, 1 - x}, {y, 1 - x}, {y, x}, {1 - x, y}, {1 - x, 1 - y}, {x, 1 - y}, {x, y}};
    for (std::uint32_t orientation = 1; orientation <= 8; ++orientation) {
        const auto view = viewForExifOrientation(orientation);
        ASSERT_TRUE(view);
        const Point there = view->toView(Point{x, y});
        EXPECT_DOUBLE_EQ(there.x, expected[orientation - 1].x) << orientation;
        EXPECT_DOUBLE_EQ(there.y, expected[orientation - 1].y) << orientation;
        const Point back = view->toBuffer(there);
        EXPECT_NEAR(back.x, x, 1e-12);
        EXPECT_NEAR(back.y, y, 1e-12);
    }
    EXPECT_FALSE(viewForExifOrientation(0));
    EXPECT_FALSE(viewForExifOrientation(9));
}

TEST(ViewTransform, ShowsPicturesAsTheirOrientationSays) {
    // Where the buffer's top left corner is shown.
    const std::pair<ImageOrientation, Point> cases[] = {{ImageOrientation::Up, {0, 0}},           {ImageOrientation::Down, {1, 1}},
                                                        {ImageOrientation::Left, {0, 1}},         {ImageOrientation::Right, {1, 0}},
                                                        {ImageOrientation::UpMirrored, {1, 0}},   {ImageOrientation::DownMirrored, {0, 1}},
                                                        {ImageOrientation::LeftMirrored, {0, 0}}, {ImageOrientation::RightMirrored, {1, 1}}};
    for (const auto& [orientation, corner] : cases) EXPECT_EQ(viewForImageOrientation(orientation).toView(Point{}), corner);
}

TEST(GreyView, TurnsThePixels) {
    // Two by three, every pixel its own grey.
    const Picture picture{2, 3, {10, 10, 10, 20, 20, 20, 30, 30, 30, 40, 40, 40, 50, 50, 50, 60, 60, 60}};
    const auto buffer = toBgra(picture);
    const std::pair<std::uint32_t, std::vector<std::uint8_t>> cases[] = {
        {5, {20, 10, 40, 30, 60, 50}}, {7, {50, 60, 30, 40, 10, 20}}, {4, {10, 30, 50, 20, 40, 60}}, {2, {60, 40, 20, 50, 30, 10}}};
    for (const auto& [orientation, pixels] : cases) {
        const ViewTransform view = *viewForExifOrientation(orientation);
        GreyImage grey;
        ASSERT_TRUE(GreyViewMaker().make(*buffer, {0, 0, 2, 3}, view, view.transpose ? 3 : 2, view.transpose ? 2 : 3, grey));
        EXPECT_EQ(grey.pixels, pixels) << orientation;
    }
}

TEST(GreyView, IsTheSameForEveryFormat) {
    for (const auto& [width, height] : {std::pair{720, 1280}, {333, 577}, {181, 101}}) {
        const Picture picture = frameOf(width, height, {Person{}});
        GreyViewMaker maker;
        GreyImage bgra;
        GreyImage argb;
        GreyImage yuv;
        const PixelArea all{0, 0, width, height};
        ASSERT_TRUE(maker.make(*toBgra(picture), all, {}, 90, 160, bgra));
        ASSERT_TRUE(maker.make(*toArgb(picture), all, {}, 90, 160, argb));
        ASSERT_TRUE(maker.make(*to420v(picture), all, {}, 90, 160, yuv));
        EXPECT_EQ(bgra.pixels, argb.pixels);
        double difference = 0.0;
        for (std::size_t i = 0; i < bgra.pixels.size(); ++i) difference += std::abs(bgra.pixels[i] - yuv.pixels[i]);
        EXPECT_LT(difference / static_cast<double>(bgra.pixels.size()), 2.5) << width;
    }
}

TEST(GreyView, RefusesWhatIsNotInTheBuffer) {
    const auto buffer = PixelBuffer::create(10, 10, kPixelFormat32BGRA);
    GreyImage grey;
    for (const PixelArea area : {PixelArea{0, 0, 0, 10}, {0, 0, 11, 10}, {-1, 0, 5, 5}, {8, 8, 3, 2}, {2147483647, 0, 1, 1}}) {
        EXPECT_FALSE(GreyViewMaker().make(*buffer, area, {}, 5, 5, grey));
    }
    EXPECT_FALSE(GreyViewMaker().make(*buffer, {0, 0, 10, 10}, {}, 0, 5, grey));
}

}  // namespace
}  // namespace selvio::test
