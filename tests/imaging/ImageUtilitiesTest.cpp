#include "support/LogCapture.h"

#include <SelvioFacialCapture/SelvioFacialCaptureImageUtilities.h>

#include <gmock/gmock.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <numbers>

namespace {

using namespace selvio;
using Utilities = SelvioFacialCaptureImageUtilities;

constexpr double kPi = std::numbers::pi;

std::size_t sampleSize(const PixelBuffer& buffer, int plane) {
    return buffer.planeCount() == 1 ? 4 : plane == 0 ? 1 : 2;
}

/// The bytes of one sample of a plane.
std::string sampleAt(const PixelBuffer& buffer, int plane, int column, int row) {
    const std::size_t size = sampleSize(buffer, plane);
    const std::uint8_t* const at =
        buffer.data(plane) + static_cast<std::size_t>(row) * buffer.bytesPerRow(plane) + static_cast<std::size_t>(column) * size;
    return {at, at + size};
}

/// A picture in which no two samples of a plane are alike (up to 256 of them), rows padded.
std::shared_ptr<PixelBuffer> distinctPicture(int width, int height, PixelFormat format) {
    auto buffer = PixelBuffer::create(width, height, format);
    for (int plane = 0; plane < buffer->planeCount(); ++plane) {
        const PlaneLayout& layout = buffer->layout().planes[static_cast<std::size_t>(plane)];
        std::memset(buffer->data(plane), 0xEE, layout.bytesPerRow * static_cast<std::size_t>(layout.height));
        const std::size_t size = sampleSize(*buffer, plane);
        for (int i = 0; i < layout.width * layout.height; ++i) {
            std::uint8_t* const at = buffer->data(plane) + static_cast<std::size_t>(i / layout.width) * layout.bytesPerRow +
                                     static_cast<std::size_t>(i % layout.width) * size;
            for (std::size_t k = 0; k < size; ++k) at[k] = static_cast<std::uint8_t>(i + 3 * static_cast<int>(k));
        }
    }
    return buffer;
}

std::array<int, 4> channelsAt(const PixelBuffer& buffer, int column, int row) {
    const std::string s = sampleAt(buffer, 0, column, row);
    return {static_cast<std::uint8_t>(s[0]), static_cast<std::uint8_t>(s[1]), static_cast<std::uint8_t>(s[2]), static_cast<std::uint8_t>(s[3])};
}

struct RotationCase {
    double radians;
    bool swaps;
    std::array<int, 2> (*place)(int c, int r, int w, int h);
};

const RotationCase kRotations[] = {
    {0.0, false,
     [](int c, int r, int, int) {
         return std::array{c, r};
     }},
    {kPi / 2, true,
     [](int c, int r, int, int h) {
         return std::array{h - 1 - r, c};
     }},
    {-kPi / 2, true,
     [](int c, int r, int w, int) {
         return std::array{r, w - 1 - c};
     }},
    {kPi, false,
     [](int c, int r, int w, int h) {
         return std::array{w - 1 - c, h - 1 - r};
     }},
    {0.5, false,
     [](int c, int r, int, int h) {
         return std::array{c, h - 1 - r};
     }},
    {-kPi, false,
     [](int c, int r, int, int h) {
         return std::array{c, h - 1 - r};
     }},
    {std::nextafter(kPi / 2, 0.0), false,
     [](int c, int r, int, int h) {
         return std::array{c, h - 1 - r};
     }},
    {std::numeric_limits<double>::quiet_NaN(), false,
     [](int c, int r, int, int h) {
         return std::array{c, h - 1 - r};
     }},
};

TEST(ImageUtilities, rotateMovesEverySampleOfEveryPlaneToItsPlace) {
    for (const PixelFormat format : {kPixelFormat32BGRA, kPixelFormat32ARGB, kPixelFormat420v}) {
        for (const auto& [width, height] : {std::pair{6, 4}, {5, 3}, {1, 7}, {3, 70}}) {
            const auto source = distinctPicture(width, height, format);
            for (const RotationCase& rotation : kRotations) {
                SCOPED_TRACE(testing::Message() << format << " " << width << "x" << height << " by " << rotation.radians);
                const Bitmap result = Utilities::rotateCGImage(source, rotation.radians);
                ASSERT_NE(result, nullptr);
                EXPECT_EQ(result->format(), format);
                EXPECT_EQ(result->width(), rotation.swaps ? height : width);
                EXPECT_EQ(result->height(), rotation.swaps ? width : height);
                for (int plane = 0; plane < source->planeCount(); ++plane) {
                    const PlaneLayout& in = source->layout().planes[static_cast<std::size_t>(plane)];
                    for (int i = 0; i < in.width * in.height; ++i) {
                        const auto [x, y] = rotation.place(i % in.width, i / in.width, in.width, in.height);
                        ASSERT_EQ(sampleAt(*result, plane, x, y), sampleAt(*source, plane, i % in.width, i / in.width));
                    }
                }
            }
        }
    }
}

TEST(ImageUtilities, imageFromUIImageTurnsTheBitmapByItsTable) {
    const auto source = distinctPicture(6, 4, kPixelFormat32BGRA);
    const std::pair<std::int64_t, const RotationCase*> table[] = {{1, &kRotations[1]}, {2, &kRotations[2]}, {3, &kRotations[0]}, {4, &kRotations[3]},
                                                                  {0, &kRotations[0]}, {9, &kRotations[0]}, {-1, &kRotations[0]}};
    for (const auto& [orientation, rotation] : table) {
        const auto image = Utilities::imageFromUIImage(Image{source, ImageOrientation::Right, 2.0}, orientation);
        ASSERT_TRUE(image) << orientation;
        const auto [x, y] = rotation->place(1, 0, 6, 4);
        EXPECT_EQ(sampleAt(*image->bitmap, 0, x, y), sampleAt(*source, 0, 1, 0)) << orientation;
        EXPECT_EQ(image->orientation, ImageOrientation::Up);
        EXPECT_EQ(image->scale, 1.0);
    }
}

TEST(ImageUtilities, sampleImagesShareThePixelsAndFollowTheDeviceTable) {
    const auto picture = distinctPicture(4, 4, kPixelFormat420v);
    const auto sample = SampleBuffer::makeVideo(picture, {std::chrono::nanoseconds(5), {}});
    const std::pair<std::int64_t, ImageOrientation> table[] = {
        {0, ImageOrientation::Up},    {1, ImageOrientation::Right},  {2, ImageOrientation::Right},
        {3, ImageOrientation::Up},    {4, ImageOrientation::Down},   {5, ImageOrientation::Right},
        {6, ImageOrientation::Right}, {77, ImageOrientation::Right}, {-3, ImageOrientation::Right}};
    for (const auto& [device, orientation] : table) {
        const auto image = Utilities::imageFromSampleBufferWithDeviceOrientation(sample, device);
        ASSERT_TRUE(image);
        EXPECT_EQ(image->orientation, orientation) << device;
        EXPECT_EQ(image->bitmap, picture);
        EXPECT_EQ(image->scale, 1.0);
        const auto adjusted = Utilities::imageFromSampleBufferAdjustedForOrientation(sample, device);
        ASSERT_TRUE(adjusted);
        EXPECT_EQ(adjusted->orientation, ImageOrientation::Up) << device;
        EXPECT_EQ(adjusted->bitmap, picture);
    }
    EXPECT_EQ(Utilities::imageFromSampleBuffer(sample)->orientation, ImageOrientation::Up);
}

TEST(ImageUtilities, convertsToPremultipliedArgbAndToBgra) {
    const auto bgra = distinctPicture(5, 3, kPixelFormat32BGRA);
    const auto argb = Utilities::pixelBufferFromCGImage(bgra);
    ASSERT_NE(argb, nullptr);
    EXPECT_EQ(argb->format(), kPixelFormat32ARGB);
    const auto back = Utilities::imageFromPixelBuffer(argb);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->bitmap->format(), kPixelFormat32BGRA);
    for (int i = 0; i < 15; ++i) {
        const auto [b, g, r, a] = channelsAt(*bgra, i % 5, i / 5);
        EXPECT_EQ(channelsAt(*argb, i % 5, i / 5), (std::array{a, r, g, b}));
        EXPECT_EQ(channelsAt(*back->bitmap, i % 5, i / 5), (std::array{b, g, r, a}));
    }
    EXPECT_EQ(sampleAt(*Utilities::pixelBufferFromCGImage(argb), 0, 4, 2), sampleAt(*argb, 0, 4, 2));

    const auto sample = Utilities::sampleBufferFromCGImage(bgra);
    ASSERT_NE(sample, nullptr);
    EXPECT_EQ(sample->formatDescription(), (VideoFormatDescription{kPixelFormat32ARGB, 5, 3}));
    EXPECT_TRUE(sample->dataIsReady());
    EXPECT_FALSE(sample->timing().isValid());
}

TEST(ImageUtilities, imageFromPixelBufferIsACopy) {
    const auto source = distinctPicture(2, 2, kPixelFormat32BGRA);
    const std::string before = sampleAt(*source, 0, 0, 0);
    const auto image = Utilities::imageFromPixelBuffer(source);
    source->data()[0] ^= 0xFF;
    EXPECT_EQ(sampleAt(*image->bitmap, 0, 0, 0), before);
}

TEST(ImageUtilities, converts420vFromVideoRange) {
    struct Case {
        std::array<std::uint8_t, 3> yCbCr;
        std::array<int, 4> argb;
    };
    const Case table[] = {{{16, 128, 128}, {255, 0, 0, 0}},  {{235, 128, 128}, {255, 255, 255, 255}}, {{126, 128, 128}, {255, 128, 128, 128}},
                          {{81, 90, 240}, {255, 255, 0, 0}}, {{145, 54, 34}, {255, 0, 255, 1}},       {{41, 240, 110}, {255, 0, 0, 255}},
                          {{0, 128, 128}, {255, 0, 0, 0}},   {{255, 128, 128}, {255, 255, 255, 255}}};
    for (const Case& c : table) {
        const auto source = PixelBuffer::create(3, 3, kPixelFormat420v);  // odd: the last column and row have colour of their own
        for (std::size_t y = 0; y < 3; ++y) std::memset(source->data(0) + y * source->bytesPerRow(0), c.yCbCr[0], 3);
        for (std::size_t y = 0; y < 2; ++y) {
            for (std::size_t x = 0; x < 2; ++x) std::memcpy(source->data(1) + y * source->bytesPerRow(1) + 2 * x, &c.yCbCr[1], 2);
        }
        const auto argb = Utilities::pixelBufferFromCGImage(source);
        ASSERT_NE(argb, nullptr);
        for (int i = 0; i < 9; ++i) {
            const auto got = channelsAt(*argb, i % 3, i / 3);
            for (std::size_t k = 0; k < 4; ++k) EXPECT_NEAR(got[k], c.argb[k], 1) << "luma " << int{c.yCbCr[0]} << " channel " << k;
        }
    }
}

/// A 420v picture whose planes lie apart, rows padded unevenly.
std::shared_ptr<PixelBuffer> pictureInTwoBlocks(std::vector<std::uint8_t>& luma, std::vector<std::uint8_t>& chroma) {
    const auto layout = PixelBufferLayout::make(5, 3, kPixelFormat420v, {9, 11});
    luma.resize(27);
    chroma.resize(22);
    for (std::size_t i = 0; i < luma.size(); ++i) luma[i] = static_cast<std::uint8_t>(i);
    for (std::size_t i = 0; i < chroma.size(); ++i) chroma[i] = static_cast<std::uint8_t>(100 + i);
    return PixelBuffer::wrap(*layout, {luma.data(), chroma.data()}, {});
}

TEST(ImageUtilities, copiesAreDeepEqualAndWithoutTiming) {
    std::vector<std::uint8_t> luma, chroma;
    const auto pool = PixelBufferPool::create();
    for (const auto& source : {distinctPicture(7, 5, kPixelFormat32BGRA), distinctPicture(7, 5, kPixelFormat32ARGB),
                               distinctPicture(7, 5, kPixelFormat420v), pictureInTwoBlocks(luma, chroma)}) {
        const auto sample = SampleBuffer::makeVideo(source, {std::chrono::nanoseconds(5), std::chrono::nanoseconds(1)}, false);
        for (const auto& copy : {Utilities::copySampleBuffer(sample), Utilities::copySampleBuffer(sample, *pool)}) {
            ASSERT_NE(copy, nullptr);
            EXPECT_FALSE(copy->timing().isValid());
            EXPECT_TRUE(copy->dataIsReady());
            const PixelBuffer& pixels = *copy->imageBuffer();
            EXPECT_EQ(pixels.layout(), source->layout());
            EXPECT_TRUE(pixels.isOneBlock());
            for (int plane = 0; plane < source->planeCount(); ++plane) {
                EXPECT_NE(pixels.data(plane), source->data(plane));
                const PlaneLayout& layout = source->layout().planes[static_cast<std::size_t>(plane)];
                EXPECT_EQ(std::memcmp(pixels.data(plane), source->data(plane), layout.bytesPerRow * static_cast<std::size_t>(layout.height)), 0);
            }
        }
    }
}

TEST(ImageUtilities, aWarmPoolAllocatesNothing) {
    const auto pool = PixelBufferPool::create();
    const auto sample = SampleBuffer::makeVideo(distinctPicture(8, 8, kPixelFormat32BGRA));
    std::vector<std::shared_ptr<SampleBuffer>> history;
    for (int i = 0; i < 100; ++i) {
        history.push_back(Utilities::copySampleBuffer(sample, *pool));
        if (history.size() > 14) history.erase(history.begin());
    }
    EXPECT_EQ(pool->allocations(), 15u);
    const auto other = Utilities::copyPixelBuffer(distinctPicture(4, 4, kPixelFormat32BGRA), *pool);  // the size changes in mid-session
    EXPECT_EQ(other->width(), 4);
    EXPECT_EQ(pool->allocations(), 16u);
    history.clear();
    EXPECT_NE(Utilities::copySampleBuffer(sample, *pool), nullptr);
    EXPECT_EQ(pool->allocations(), 17u) << "memory of the old size must not have been kept";
}

TEST(ImageUtilities, nothingInNothingOut) {
    LogCapture log;
    const auto empty = SampleBuffer::makeVideo(nullptr);
    const auto sound = SampleBuffer::makeAudio({44100, 1, {1, 2, 3}}, {});
    const auto pool = PixelBufferPool::create();
    EXPECT_EQ(Utilities::rotateCGImage(nullptr, 0.0), nullptr);
    EXPECT_EQ(Utilities::pixelBufferFromCGImage(nullptr), nullptr);
    EXPECT_EQ(Utilities::sampleBufferFromCGImage(nullptr), nullptr);
    EXPECT_FALSE(Utilities::imageFromPixelBuffer(nullptr));
    EXPECT_FALSE(Utilities::imageFromUIImage(std::nullopt, 1));
    EXPECT_FALSE(Utilities::imageFromUIImage(Image{}, 1));
    EXPECT_EQ(Utilities::copyPixelBuffer(nullptr), nullptr);
    for (const auto& sample : {std::shared_ptr<SampleBuffer>(), empty, sound}) {
        EXPECT_FALSE(Utilities::imageFromSampleBuffer(sample));
        EXPECT_FALSE(Utilities::imageFromSampleBufferAdjustedForOrientation(sample, 1));
        EXPECT_EQ(Utilities::copySampleBuffer(sample), nullptr);
        EXPECT_EQ(Utilities::copySampleBuffer(sample, *pool), nullptr);
    }
    EXPECT_THAT(log.take(), testing::IsEmpty());
}

TEST(ImageUtilities, aPictureWithoutPixelsIsRefusedAndItsCopyLogged) {
    const auto layout = *PixelBufferLayout::make(2, 2, kPixelFormat32BGRA);
    PixelBufferLayout shortRows = layout;
    shortRows.planes[0].bytesPerRow = 4;
    std::array<std::uint8_t, 128> memory{};
    const std::shared_ptr<PixelBuffer> pictures[] = {PixelBuffer::wrap(PixelBufferLayout{}, {memory.data(), nullptr}, {}),
                                                     PixelBuffer::wrap(shortRows, {memory.data(), nullptr}, {}), PixelBuffer::wrap(layout, {}, {})};
    for (const auto& picture : pictures) {
        LogCapture log;
        const auto sample = SampleBuffer::makeVideo(picture);
        EXPECT_EQ(Utilities::rotateCGImage(picture, kPi), nullptr);
        EXPECT_EQ(Utilities::sampleBufferFromCGImage(picture), nullptr);
        EXPECT_FALSE(Utilities::imageFromPixelBuffer(picture));
        EXPECT_FALSE(Utilities::imageFromSampleBuffer(sample));
        EXPECT_THAT(log.take(), testing::IsEmpty());
        EXPECT_EQ(Utilities::copySampleBuffer(sample), nullptr);
        EXPECT_THAT(log.take(), testing::ElementsAre("RBGBuffereCopyWithPixelBuffer :: failed"));
    }
}

}  // namespace
