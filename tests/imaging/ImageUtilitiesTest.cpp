#include "support/LogCapture.h"
#include "support/Pixels.h"

#include <SelvioFacialCapture/SelvioFacialCaptureImageUtilities.h>

#include <gmock/gmock.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <numbers>

namespace {

using namespace selvio;
using namespace selvio::test;
using Utilities = SelvioFacialCaptureImageUtilities;

constexpr double kPi = std::numbers::pi;

/// The bytes of one sample.
std::string bytesAt(const PixelBuffer& buffer, int x, int y, int plane = 0) {
    const auto* const first = sampleAt(buffer, x, y, plane);
    return {first, first + sampleSize(buffer, plane)};
}

/// A picture in which no two samples of a plane are alike (up to 256 of them), rows padded.
std::shared_ptr<PixelBuffer> distinctPicture(int width, int height, PixelFormat format) {
    return painted(width, height, format, [&](std::uint8_t* sample, int x, int y, int plane) {
        const int number = y * (plane == 0 ? width : (width + 1) / 2) + x;
        for (int k = 0; k < (format != kPixelFormat420v ? 4 : plane + 1); ++k)
            sample[k] = static_cast<std::uint8_t>(number + 3 * k);
    });
}

std::array<int, 4> channelsAt(const PixelBuffer& buffer, int x, int y) {
    const auto* const s = sampleAt(buffer, x, y);
    return {s[0], s[1], s[2], s[3]};
}

/// Where a rotation puts the sample of column c and row r of a plane of w x h samples.
using Place = std::array<int, 2> (*)(int c, int r, int w, int h);
struct Rotation {
    double radians;
    Place place;
};
const Place kUnturned = [](int c, int r, int, int) { return std::array{c, r}; };
const Place kClockwise = [](int c, int r, int, int h) { return std::array{h - 1 - r, c}; };
const Place kCounterclockwise = [](int c, int r, int w, int) { return std::array{r, w - 1 - c}; };
const Place kOver = [](int c, int r, int w, int h) { return std::array{w - 1 - c, h - 1 - r}; };
const Place kFlipped = [](int c, int r, int, int h) { return std::array{c, h - 1 - r}; };

const Rotation kRotations[] = {{0.0, kUnturned},
                               {kPi / 2, kClockwise},
                               {-kPi / 2, kCounterclockwise},
                               {kPi, kOver},
                               {0.5, kFlipped},
                               {-kPi, kFlipped},
                               {std::nextafter(kPi / 2, 0.0), kFlipped},
                               {std::numeric_limits<double>::quiet_NaN(), kFlipped}};

TEST(ImageUtilities, rotateMovesEverySampleOfEveryPlaneToItsPlace) {
    for (const PixelFormat format : {kPixelFormat32BGRA, kPixelFormat32ARGB, kPixelFormat420v}) {
        for (const auto& [width, height] : {std::pair{6, 4}, {5, 3}, {1, 7}, {3, 70}}) {
            const auto source = distinctPicture(width, height, format);
            for (const Rotation& rotation : kRotations) {
                SCOPED_TRACE(testing::Message()
                             << format << " " << width << "x" << height << " by " << rotation.radians);
                const Bitmap result = Utilities::rotateCGImage(source, rotation.radians);
                ASSERT_NE(result, nullptr);
                EXPECT_EQ(result->format(), format);
                const bool swaps = std::abs(rotation.radians) == kPi / 2;
                EXPECT_EQ(result->width(), swaps ? height : width);
                EXPECT_EQ(result->height(), swaps ? width : height);
                for (int plane = 0; plane < source->planeCount(); ++plane) {
                    const PlaneLayout& in = source->layout().planes[static_cast<std::size_t>(plane)];
                    for (int i = 0; i < in.width * in.height; ++i) {
                        const auto [x, y] = rotation.place(i % in.width, i / in.width, in.width, in.height);
                        ASSERT_EQ(bytesAt(*result, x, y, plane), bytesAt(*source, i % in.width, i / in.width, plane));
                    }
                }
            }
        }
    }
}

TEST(ImageUtilities, imageFromUIImageTurnsTheBitmapByItsTable) {
    const auto source = distinctPicture(6, 4, kPixelFormat32BGRA);
    const std::pair<std::int64_t, Place> table[] = {
        {1, kClockwise}, {2, kCounterclockwise}, {3, kUnturned}, {4, kOver}, {9, kUnturned}};
    for (const auto& [orientation, place] : table) {
        const auto image = Utilities::imageFromUIImage(Image{source, ImageOrientation::Right, 2.0}, orientation);
        ASSERT_TRUE(image) << orientation;
        const auto [x, y] = place(1, 0, 6, 4);
        EXPECT_EQ(bytesAt(*image->bitmap, x, y), bytesAt(*source, 1, 0)) << orientation;
        EXPECT_EQ(image->orientation, ImageOrientation::Up);
        EXPECT_EQ(image->scale, 1.0);
    }
}

TEST(ImageUtilities, sampleImagesShareThePixelsAndFollowTheDeviceTable) {
    const auto picture = distinctPicture(4, 4, kPixelFormat420v);
    const auto sample = SampleBuffer::makeVideo(picture, {std::chrono::nanoseconds(5), {}});
    const std::pair<std::int64_t, ImageOrientation> table[] = {
        {0, ImageOrientation::Up},    {1, ImageOrientation::Right}, {2, ImageOrientation::Right},
        {3, ImageOrientation::Up},    {4, ImageOrientation::Down},  {5, ImageOrientation::Right},
        {77, ImageOrientation::Right}};
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
    EXPECT_EQ(bytesAt(*Utilities::pixelBufferFromCGImage(argb), 4, 2), bytesAt(*argb, 4, 2));

    EXPECT_NE(Utilities::imageFromPixelBuffer(bgra)->bitmap->data(), bgra->data()) << "a copy";

    const auto sample = Utilities::sampleBufferFromCGImage(bgra);
    ASSERT_NE(sample, nullptr);
    EXPECT_EQ(sample->formatDescription(), (VideoFormatDescription{kPixelFormat32ARGB, 5, 3}));
    EXPECT_TRUE(sample->dataIsReady());
    EXPECT_FALSE(sample->timing().isValid());
}

TEST(ImageUtilities, converts420vFromVideoRange) {
    struct Case {
        std::array<std::uint8_t, 3> yCbCr;
        std::array<int, 4> argb;
    };
    const Case table[] = {{{16, 128, 128}, {255, 0, 0, 0}},        {{235, 128, 128}, {255, 255, 255, 255}},
                          {{126, 128, 128}, {255, 128, 128, 128}}, {{81, 90, 240}, {255, 255, 0, 0}},
                          {{145, 54, 34}, {255, 0, 255, 1}},       {{41, 240, 110}, {255, 0, 0, 255}},
                          {{0, 128, 128}, {255, 0, 0, 0}},         {{255, 128, 128}, {255, 255, 255, 255}}};
    for (const Case& c : table) {
        // Odd: the last column and row have colour of their own.
        const auto source = painted(3, 3, kPixelFormat420v, [&](std::uint8_t* sample, int, int, int plane) {
            plane == 0 ? std::copy_n(&c.yCbCr[0], 1, sample) : std::copy_n(&c.yCbCr[1], 2, sample);
        });
        const auto argb = Utilities::pixelBufferFromCGImage(source);
        ASSERT_NE(argb, nullptr);
        for (int i = 0; i < 9; ++i) {
            const auto got = channelsAt(*argb, i % 3, i / 3);
            for (std::size_t k = 0; k < 4; ++k)
                EXPECT_NEAR(got[k], c.argb[k], 1) << "luma " << int{c.yCbCr[0]} << " channel " << k;
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
        const auto sample =
            SampleBuffer::makeVideo(source, {std::chrono::nanoseconds(5), std::chrono::nanoseconds(1)}, false);
        for (const auto& copy : {Utilities::copySampleBuffer(sample), Utilities::copySampleBuffer(sample, *pool)}) {
            ASSERT_NE(copy, nullptr);
            EXPECT_FALSE(copy->timing().isValid());
            EXPECT_TRUE(copy->dataIsReady());
            const PixelBuffer& pixels = *copy->imageBuffer();
            EXPECT_EQ(pixels.layout(), source->layout());
            for (int plane = 0; plane < source->planeCount(); ++plane) {
                EXPECT_NE(pixels.data(plane), source->data(plane));
                EXPECT_EQ(std::memcmp(pixels.data(plane), source->data(plane), source->layout().planeBytes(plane)), 0);
            }
        }
    }
}

// The lower right part of a landscape frame, with memory that nobody may read right behind its last sample.
TEST(ImageUtilities, aPartOfALargerPictureIsCopiedCompactAndNotBeyondItsEnd) {
    struct Case {
        PixelFormat format;
        int width, height;                // of the part
        std::array<std::size_t, 2> rows;  // of the whole, bytes
        std::size_t bytesOfCopy;
        bool keepsRows;
    };
    const Case cases[] = {{kPixelFormat32BGRA, 404, 720, {5120, 0}, 720 * 1664, false},
                          {kPixelFormat32ARGB, 9, 3, {40, 0}, 3 * 40, true},
                          {kPixelFormat420v, 405, 719, {1280, 1280}, 719 * 448 + 360 * 448, false},
                          {kPixelFormat420v, 6, 4, {8, 8}, 6 * 8, true}};
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.format << " " << c.width << "x" << c.height);
        const bool twoPlanes = c.format == kPixelFormat420v;
        std::array<std::uint8_t*, 2> planes{};
        std::vector<std::pair<void*, std::size_t>> mappings;
        for (std::size_t plane = 0; plane < (twoPlanes ? 2U : 1U); ++plane) {
            const std::size_t shrink = plane + 1;
            const std::size_t sample = twoPlanes ? plane + 1 : 4;
            const auto samples = (static_cast<std::size_t>(c.width) + shrink - 1) / shrink;
            const auto rows = (static_cast<std::size_t>(c.height) + shrink - 1) / shrink;
            const std::size_t bytes = c.rows[plane] * (rows - 1) + samples * sample;
            const std::size_t size = (bytes + page - 1) / page * page;
            void* const memory =
                ::mmap(nullptr, size + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            ASSERT_NE(memory, MAP_FAILED);
            ASSERT_EQ(::mprotect(static_cast<std::uint8_t*>(memory) + size, page, PROT_NONE), 0);
            mappings.emplace_back(memory, size + page);
            planes[plane] = static_cast<std::uint8_t*>(memory) + size - bytes;
            for (std::size_t i = 0; i < bytes; ++i) planes[plane][i] = static_cast<std::uint8_t>(i * 7 + i / 251);
        }
        const auto layout = PixelBufferLayout::make(c.width, c.height, c.format, c.rows);
        ASSERT_TRUE(layout);
        const auto part = PixelBuffer::wrap(*layout, planes, {});
        const auto copy = Utilities::copyPixelBuffer(part);
        ASSERT_NE(copy, nullptr);
        EXPECT_EQ(copy->layout().byteSize(), c.bytesOfCopy);
        EXPECT_EQ(copy->layout() == part->layout(), c.keepsRows);
        for (int plane = 0; plane < part->planeCount(); ++plane) {
            const PlaneLayout& rows = layout->planes[static_cast<std::size_t>(plane)];
            for (int y = 0; y < rows.height; ++y) {
                ASSERT_EQ(std::memcmp(sampleAt(*copy, 0, y, plane), sampleAt(*part, 0, y, plane),
                                      static_cast<std::size_t>(rows.width) * sampleSize(*part, plane)),
                          0)
                    << "row " << y << " of plane " << plane;
            }
        }
        EXPECT_NE(Utilities::rotateCGImage(part, kPi), nullptr);
        EXPECT_TRUE(Utilities::imageFromPixelBuffer(part));
        for (const auto& [memory, size] : mappings) ::munmap(memory, size);
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
    const auto other = Utilities::copyPixelBuffer(distinctPicture(4, 4, kPixelFormat32BGRA),
                                                  *pool);  // the size changes in mid-session
    EXPECT_EQ(other->width(), 4);
    EXPECT_EQ(pool->allocations(), 16u);
    history.clear();
    EXPECT_NE(Utilities::copySampleBuffer(sample, *pool), nullptr);
    EXPECT_EQ(pool->allocations(), 17u) << "memory of the old size must not have been kept";
}

TEST(ImageUtilities, nothingComesOfAPictureWithoutPixelsAndOnlyItsCopyIsLogged) {
    const auto layout = *PixelBufferLayout::make(2, 2, kPixelFormat32BGRA);
    PixelBufferLayout shortRows = layout;
    shortRows.planes[0].bytesPerRow = 4;
    std::array<std::uint8_t, 128> memory{};
    const std::shared_ptr<PixelBuffer> pictures[] = {
        nullptr, PixelBuffer::wrap(PixelBufferLayout{}, {memory.data(), nullptr}, {}),
        PixelBuffer::wrap(shortRows, {memory.data(), nullptr}, {}), PixelBuffer::wrap(layout, {}, {})};
    for (const auto& picture : pictures) {
        LogCapture log;
        const auto sample = SampleBuffer::makeVideo(picture);
        EXPECT_EQ(Utilities::rotateCGImage(picture, kPi), nullptr);
        EXPECT_EQ(Utilities::sampleBufferFromCGImage(picture), nullptr);
        EXPECT_FALSE(Utilities::imageFromPixelBuffer(picture));
        EXPECT_FALSE(Utilities::imageFromUIImage(Image{picture}, 1));
        EXPECT_FALSE(Utilities::imageFromSampleBuffer(sample));
        EXPECT_THAT(log.take(), testing::IsEmpty());
        EXPECT_EQ(Utilities::copySampleBuffer(sample), nullptr);
        EXPECT_EQ(log.take(),
                  std::vector<std::string>(picture == nullptr ? 0 : 1, "RBGBuffereCopyWithPixelBuffer :: failed"));
    }
    const auto sound = SampleBuffer::makeAudio({44100, 1, {1, 2, 3}}, {});
    for (const auto& sample : {std::shared_ptr<SampleBuffer>(), sound}) {
        EXPECT_FALSE(Utilities::imageFromSampleBufferAdjustedForOrientation(sample, 1));
        EXPECT_EQ(Utilities::copySampleBuffer(sample), nullptr);
    }
}

}  // namespace
