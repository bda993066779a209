// The way from a buffer to the upright view.
#include "platform/linux/vision/GreyView.h"
#include "vision/TestPictures.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace selvio::test {
namespace {

TEST(ViewTransform, ShowsPicturesAsTheirOrientationSays) {
    // Where the buffer's top left corner is shown.
    const std::pair<ImageOrientation, Point> cases[] = {{ImageOrientation::Up, {0, 0}},           {ImageOrientation::Down, {1, 1}},
                                                        {ImageOrientation::Left, {0, 1}},         {ImageOrientation::Right, {1, 0}},
                                                        {ImageOrientation::UpMirrored, {1, 0}},   {ImageOrientation::DownMirrored, {0, 1}},
                                                        {ImageOrientation::LeftMirrored, {0, 0}}, {ImageOrientation::RightMirrored, {1, 1}}};
    for (const auto& [orientation, corner] : cases) EXPECT_EQ(viewForImageOrientation(orientation).toView(Point{}), corner);
}

TEST(GreyView, IsTheSameForEveryFormat) {
    for (const auto& [width, height] : {std::pair{720, 1280}, {181, 101}}) {
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

}  // namespace
}  // namespace selvio::test
