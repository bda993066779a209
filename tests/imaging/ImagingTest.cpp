#include "support/LogCapture.h"
#include "support/Pixels.h"

#include <SelvioFacialCapture/SelvioFacialCaptureImageUtilities.h>
#include <SelvioFacialCapture/imaging/Base64.h>

#include <gmock/gmock.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <numbers>

namespace {

using namespace selvio;
using namespace std::chrono_literals;
using Utilities = SelvioFacialCaptureImageUtilities;
using Picture = std::shared_ptr<PixelBuffer>;

constexpr double kPi = std::numbers::pi;

TEST(Base64, FollowsTheStandardVectorsAndRefusesWhatIsNotItsOwnText) {
    for (const auto& [plain, text] : std::map<std::string, std::string>{
             {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foobar", "Zm9vYmFy"}, {"\xfb\xff\xbf", "+/+/"}}) {
        const std::vector<std::uint8_t> bytes(plain.begin(), plain.end());
        EXPECT_EQ(base64::encode(bytes), text);
        EXPECT_EQ(base64::decode(text), bytes) << text;
    }
    for (const char* text : {"Zg", "Zg=", "Z===", "====", "Zg==Zg==", "Zm9v\n", "Zm9-", "Zh==", "Zm9=", "Zm 9v==="})
        EXPECT_EQ(base64::decode(text), std::nullopt) << text;
}

/// The bytes of one sample.
std::string bytesAt(const PixelBuffer& buffer, int x, int y, int plane = 0) {
    const auto* const first = sampleAt(buffer, x, y, plane);
    return {first, first + sampleSize(buffer, plane)};
}

/// A picture in which no two samples of a plane are alike (up to 256 of them), rows padded.
Picture distinctPicture(int width, int height, PixelFormat format) {
    return painted(width, height, format, [&](std::uint8_t* sample, int x, int y, int plane) {
        const int number = y * (plane == 0 ? width : (width + 1) / 2) + x;
        for (int k = 0; k < (format != kPixelFormat420v ? 4 : plane + 1); ++k)
            sample[k] = static_cast<std::uint8_t>(number + 3 * k);
    });
}

/// Where a rotation puts the sample of column c and row r of a plane of w x h samples.
using Place = std::array<int, 2> (*)(int c, int r, int w, int h);
const Place kUnturned = [](int c, int r, int, int) { return std::array{c, r}; };
const Place kClockwise = [](int c, int r, int, int h) { return std::array{h - 1 - r, c}; };
const Place kCounterclockwise = [](int c, int r, int w, int) { return std::array{r, w - 1 - c}; };
const Place kOver = [](int c, int r, int w, int h) { return std::array{w - 1 - c, h - 1 - r}; };
const Place kFlipped = [](int c, int r, int, int h) { return std::array{c, h - 1 - r}; };

TEST(ImageUtilities, RotateMovesEverySampleOfEveryPlaneToItsPlace) {
    const double nan = std::numeric_limits<double>::quiet_NaN(), almost = std::nextafter(kPi / 2, 0.0);
    const std::pair<double, Place> rotations[] = {
        {0.0, kUnturned},   {kPi / 2, kClockwise}, {-kPi / 2, kCounterclockwise}, {kPi, kOver}, {-kPi, kFlipped},
        {almost, kFlipped}, {nan, kFlipped}};
    for (const PixelFormat format : {kPixelFormat32BGRA, kPixelFormat420v}) {
        for (const auto& [width, height] : {std::pair{6, 4}, {5, 3}, {1, 7}, {3, 70}}) {
            const auto source = distinctPicture(width, height, format);
            for (const auto& [radians, place] : rotations) {
                SCOPED_TRACE(testing::Message() << format << " " << width << "x" << height << " by " << radians);
                const Bitmap result = Utilities::rotateCGImage(source, radians);
                ASSERT_NE(result, nullptr);
                const bool swaps = std::abs(radians) == kPi / 2;
                EXPECT_EQ(std::tuple(result->format(), result->width(), result->height()),
                          std::tuple(format, swaps ? height : width, swaps ? width : height));
                for (int plane = 0; plane < source->planeCount(); ++plane) {
                    const PlaneLayout& in = source->layout().planes[static_cast<std::size_t>(plane)];
                    for (int i = 0; i < in.width * in.height; ++i) {
                        const auto [x, y] = place(i % in.width, i / in.width, in.width, in.height);
                        ASSERT_EQ(bytesAt(*result, x, y, plane), bytesAt(*source, i % in.width, i / in.width, plane));
                    }
                }
            }
        }
    }
    const auto source = distinctPicture(6, 4, kPixelFormat32BGRA);
    std::int64_t orientation = 1;
    for (const Place place : {kClockwise, kCounterclockwise, kUnturned, kOver}) {
        const auto image = Utilities::imageFromUIImage(Image{source, ImageOrientation::Right, 2.0}, orientation++);
        const auto [x, y] = place(1, 0, 6, 4);
        EXPECT_EQ(std::tuple(bytesAt(*image.value().bitmap, x, y), image->orientation, image->scale),
                  std::tuple(bytesAt(*source, 1, 0), ImageOrientation::Up, 1.0));
    }
}

TEST(ImageUtilities, SampleImagesShareThePixelsAndFollowTheDeviceTable) {
    const Picture picture = distinctPicture(4, 4, kPixelFormat420v);
    const SampleTiming timing{1s, 2s};
    const auto sample = SampleBuffer::makeVideo(picture, timing);
    EXPECT_EQ(sample->timing(), timing);
    EXPECT_EQ(SampleBuffer::makeAudio({}, timing)->timing(), timing);
    using enum ImageOrientation;
    std::int64_t device = 0;
    for (const auto orientation : {Up, Right, Right, Up, Down, Right, Right}) {
        const Image image = Utilities::imageFromSampleBufferWithDeviceOrientation(sample, device).value();
        const Image adjusted = Utilities::imageFromSampleBufferAdjustedForOrientation(sample, device++).value();
        EXPECT_EQ(std::tuple(image.orientation, adjusted.orientation, image.bitmap, adjusted.bitmap, image.scale),
                  std::tuple(orientation, Up, Bitmap(picture), Bitmap(picture), 1.0));
    }
}

TEST(ImageUtilities, ConvertsBetweenTheOrdersOfChannelsAndFromVideoRange) {
    const Picture bgra = distinctPicture(5, 3, kPixelFormat32BGRA);
    const auto sample = Utilities::sampleBufferFromCGImage(bgra);
    ASSERT_NE(sample, nullptr);
    EXPECT_EQ(sample->formatDescription(), (VideoFormatDescription{kPixelFormat32ARGB, 5, 3}));
    EXPECT_TRUE(sample->dataIsReady() && !sample->timing().isValid());
    const auto argb = sample->imageBuffer();
    const Image back = Utilities::imageFromPixelBuffer(argb).value();
    EXPECT_EQ(std::tuple(back.orientation, back.scale, back.bitmap->format()),
              std::tuple(ImageOrientation::Up, 1.0, kPixelFormat32BGRA));
    for (int i = 0; i < 15; ++i) {
        const std::string pixel = bytesAt(*bgra, i % 5, i / 5);
        EXPECT_EQ(bytesAt(*argb, i % 5, i / 5), std::string(pixel.rbegin(), pixel.rend()));
        EXPECT_EQ(bytesAt(*back.bitmap, i % 5, i / 5), pixel);
    }
    EXPECT_EQ(bytesAt(*Utilities::pixelBufferFromCGImage(argb), 4, 2), bytesAt(*argb, 4, 2));
    EXPECT_NE(Utilities::imageFromPixelBuffer(bgra)->bitmap->data(), bgra->data()) << "a copy";

    for (int n = 0; n < 64; ++n) {
        // Three columns and rows: the last ones have colour of their own.
        const auto sample = [n](int x, int y, int factor) {
            return static_cast<std::uint8_t>(n * factor + 31 * x + y);
        };
        const auto source = painted(3, 3, kPixelFormat420v, [&](std::uint8_t* to, int x, int y, int plane) {
            const std::array samples{sample(x, y, 97), sample(x, y, 161), sample(x, y, 59)};
            std::copy_n(&samples[plane == 0 ? 0 : 1], plane + 1, to);
        });
        const auto converted = Utilities::pixelBufferFromCGImage(source);
        ASSERT_NE(converted, nullptr);
        for (int i = 0; i < 9; ++i) {
            const int x = i % 3, y = i / 3;
            // BT.601 video range: 219 steps of luma from 16, 224 of each colour difference around 128.
            const double luma = (sample(x, y, 97) - 16) * 255 / 219.0;
            const double cb = (sample(x / 2, y / 2, 161) - 128) * 255 / 224.0;
            const double cr = (sample(x / 2, y / 2, 59) - 128) * 255 / 224.0;
            const double right[] = {255, luma + 1.402 * cr, luma - 0.344136 * cb - 0.714136 * cr, luma + 1.772 * cb};
            for (int c = 0; c < 4; ++c)
                EXPECT_NEAR(sampleAt(*converted, x, y)[c], std::clamp(right[c], 0.0, 255.0), 0.51) << n;
        }
    }
}

/// A part of a larger picture, its planes apart, with memory that nobody may touch right behind their last samples. It
/// stays until the program ends.
Picture partOfAPicture(int width, int height, PixelFormat format, std::array<std::size_t, 2> bytesPerRow) {
    const auto layout = PixelBufferLayout::make(width, height, format, bytesPerRow).value();
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    std::array<std::uint8_t*, 2> planes{};
    for (std::size_t plane = 0; plane < static_cast<std::size_t>(layout.planeCount); ++plane) {
        const auto& [columns, rows, stride] = layout.planes[plane];
        const auto sample = layout.planeCount == 1 ? 4 : plane + 1;
        const auto bytes = stride * static_cast<std::size_t>(rows - 1) + static_cast<std::size_t>(columns) * sample;
        const auto size = (bytes + page - 1) / page * page;
        void* const memory = ::mmap(nullptr, size + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        EXPECT_EQ(::mprotect(static_cast<std::uint8_t*>(memory) + size, page, PROT_NONE), 0);
        planes[plane] = static_cast<std::uint8_t*>(memory) + size - bytes;
        for (std::size_t i = 0; i < bytes; ++i) planes[plane][i] = static_cast<std::uint8_t>(i * 7 + i / 251);
    }
    return PixelBuffer::wrap(layout, planes, {});
}

TEST(PixelBuffer, HasFromOneTo32767PixelsASide) {
    for (const auto& [side, isPossible] : {std::pair(0, false), {1, true}, {32767, true}, {32768, false}}) {
        EXPECT_EQ(PixelBufferLayout::make(side, 1, kPixelFormat32BGRA).has_value(), isPossible) << side;
        EXPECT_EQ(PixelBufferLayout::make(1, side, kPixelFormat32BGRA).has_value(), isPossible) << side;
    }
}

TEST(ImageUtilities, CopiesAreDeepEqualCompactAndWithoutTiming) {
    const std::tuple<Picture, std::size_t, bool> table[] = {
        {distinctPicture(7, 5, kPixelFormat420v), 5 * 64 + 3 * 64, true},
        {partOfAPicture(404, 720, kPixelFormat32BGRA, {5120, 0}), 720 * 1664, false},
        {partOfAPicture(9, 3, kPixelFormat32ARGB, {40, 0}), 3 * 40, true},
        {partOfAPicture(405, 719, kPixelFormat420v, {1280, 1280}), 719 * 448 + 360 * 448, false},
        {partOfAPicture(5, 3, kPixelFormat420v, {9, 11}), 3 * 9 + 2 * 11, true}};
    const auto pool = PixelBufferPool::create();
    for (const auto& [source, bytesOfCopy, keepsRows] : table) {
        SCOPED_TRACE(testing::Message() << source->format() << " " << source->width() << "x" << source->height());
        const auto sample = SampleBuffer::makeVideo(source, {5ns, 1ns}, false);
        for (const auto& copy : {Utilities::copySampleBuffer(sample), Utilities::copySampleBuffer(sample, *pool)}) {
            ASSERT_NE(copy, nullptr);
            EXPECT_TRUE(copy->dataIsReady() && !copy->timing().isValid());
            const PixelBuffer& pixels = *copy->imageBuffer();
            EXPECT_EQ(std::pair(pixels.layout().byteSize(), pixels.layout() == source->layout()),
                      std::pair(bytesOfCopy, keepsRows));
            for (int plane = 0; plane < source->planeCount(); ++plane) {
                EXPECT_NE(pixels.data(plane), source->data(plane));
                const PlaneLayout& rows = source->layout().planes[static_cast<std::size_t>(plane)];
                const auto bytes = static_cast<std::size_t>(rows.width) * sampleSize(pixels, plane);
                for (int y = 0; y < rows.height; ++y)
                    ASSERT_EQ(std::memcmp(sampleAt(pixels, 0, y, plane), sampleAt(*source, 0, y, plane), bytes), 0);
            }
        }
        EXPECT_NE(Utilities::rotateCGImage(source, kPi), nullptr);
        EXPECT_TRUE(Utilities::imageFromPixelBuffer(source));
    }
}

TEST(ImageUtilities, AWarmPoolAllocatesNothing) {
    const auto pool = PixelBufferPool::create();
    const auto sample = SampleBuffer::makeVideo(distinctPicture(4, 4, kPixelFormat32BGRA));
    const auto larger = SampleBuffer::makeVideo(distinctPicture(8, 8, kPixelFormat32BGRA));
    std::vector<std::shared_ptr<SampleBuffer>> history(14);
    for (std::size_t i = 0; i < 100; ++i) history[i % 14] = Utilities::copySampleBuffer(sample, *pool);
    EXPECT_EQ(pool->allocations(), 15u);
    const auto held = Utilities::copySampleBuffer(larger, *pool);  // the size changes in mid-session
    history.clear();
    EXPECT_NE(Utilities::copySampleBuffer(larger, *pool), nullptr);
    EXPECT_EQ(pool->allocations(), 17u) << "memory of the old size must not have been kept";
}

TEST(ImageUtilities, NothingComesOfAPictureWithoutPixelsAndOnlyItsCopyIsLogged) {
    const std::size_t endless = (std::size_t{1} << 62) + 64;  // four such rows would count as 256 bytes
    EXPECT_FALSE(PixelBufferLayout::make(16, 4, kPixelFormat32BGRA, {endless, 0}));
    EXPECT_FALSE(PixelBufferLayout::make(16, 4, kPixelFormat420v, {16, endless}));
    const auto layout = *PixelBufferLayout::make(2, 2, kPixelFormat32BGRA);
    PixelBufferLayout shortRows = layout;
    shortRows.planes[0].bytesPerRow = 4;
    std::array<std::uint8_t, 128> memory{};
    for (const auto& picture :
         {Picture(), PixelBuffer::wrap(PixelBufferLayout{}, {memory.data(), nullptr}, {}),
          PixelBuffer::wrap(shortRows, {memory.data(), nullptr}, {}), PixelBuffer::wrap(layout, {}, {})}) {
        LogCapture log;
        const auto sample = SampleBuffer::makeVideo(picture);
        EXPECT_FALSE(Utilities::rotateCGImage(picture, kPi) || Utilities::sampleBufferFromCGImage(picture) ||
                     Utilities::imageFromPixelBuffer(picture) || Utilities::imageFromUIImage(Image{picture}, 1) ||
                     Utilities::imageFromSampleBuffer(sample));
        EXPECT_THAT(log.take(), testing::IsEmpty());
        EXPECT_EQ(Utilities::copySampleBuffer(sample), nullptr);
        EXPECT_EQ(log.take(), std::vector<std::string>(picture ? 1 : 0, "RBGBuffereCopyWithPixelBuffer :: failed"));
    }
    for (const auto& sample : {std::shared_ptr<SampleBuffer>(), SampleBuffer::makeAudio({44100, 1, {1, 2, 3}}, {})})
        EXPECT_FALSE(Utilities::imageFromSampleBuffer(sample) || Utilities::copySampleBuffer(sample));
}

}  // namespace
