#include "codec/PictureFiles.h"

#include <SelvioFacialCapture/SelvioFacialCaptureImageUtilities.h>
#include <SelvioFacialCapture/linux/Codec.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace {

using namespace selvio;
using namespace selvio::test;
using Utilities = SelvioFacialCaptureImageUtilities;

class ImageCodecTest : public testing::Test {
protected:
    std::shared_ptr<PixelBuffer> decoded(const std::optional<Bytes>& file) const {
        if (!file) return nullptr;
        const auto picture = loader.loadImage(directory.write("picture.jpg", *file));
        EXPECT_TRUE(picture) << picture.error().localizedDescription;
        return picture ? picture.value() : nullptr;
    }
    [[nodiscard]] ImageProperties propertiesOf(const Bytes& file) const { return codec.openSource(file)->properties(); }
    [[nodiscard]] std::optional<Bytes> reencoded(const Bytes& file, const ImageProperties& properties) const {
        const auto source = codec.openSource(file);
        return source ? codec.encodeFromSource(*source, properties) : std::nullopt;
    }

    const TemporaryDirectory directory;
    const LibjpegImageCodec codec;
    const JpegPngImageLoader loader;
};

/// Flat blocks of 16 x 16 pixels, so that nothing is lost, each of another colour; in 420v of every luma, and of
/// colours that are in gamut.
std::shared_ptr<PixelBuffer> blocks(int width, int height, PixelFormat format = kPixelFormat32BGRA) {
    return painted(width, height, format, [&](std::uint8_t* sample, int x, int y, int plane) {
        const int side = plane == 0 ? 16 : 8;
        const int block = y / side * 16 + x / side;
        const int hue = block < 45 || block > 205 ? 30 : block % 61;
        const std::array<int, 4> values =
            plane == 0 ? std::array{block, block * 37, block * 91, 255} : std::array{98 + hue, 158 - hue, 0, 0};
        for (std::size_t i = 0; i < (format == kPixelFormat420v ? 1U + static_cast<std::size_t>(plane) : 4U); ++i)
            sample[i] = static_cast<std::uint8_t>(values[i]);
    });
}

/// The largest difference of any channel in the middle of the blocks of two BGRA pictures.
int largestDifference(const PixelBuffer& a, const PixelBuffer& b) {
    int largest = 0;
    for (int y = 0; y < a.height(); y += 16) {
        for (int x = 0; x < a.width(); x += 16) {
            const int middleX = std::min(x + 8, (x + a.width()) / 2), middleY = std::min(y + 8, (y + a.height()) / 2);
            const Colour one = colourAt(a, middleX, middleY), other = colourAt(b, middleX, middleY);
            for (std::size_t k = 0; k < 3; ++k) largest = std::max(largest, std::abs(one[k] - other[k]));
        }
    }
    return largest;
}

TEST_F(ImageCodecTest, everyFormatAndOddSizesKeepTheirColours) {
    for (const PixelFormat format : {kPixelFormat32BGRA, kPixelFormat32ARGB, kPixelFormat420v}) {
        for (const auto& [width, height] : {std::pair{256, 256}, {23, 45}, {1, 1}}) {
            SCOPED_TRACE(testing::Message() << format << " " << width << "x" << height);
            const auto picture = blocks(width, height, format);
            const auto file = codec.encodeJpeg({picture}, 1.0);
            const auto result = decoded(file);
            ASSERT_TRUE(result && result->width() == width && result->height() == height);
            EXPECT_LE(largestDifference(*result, *Utilities::imageFromPixelBuffer(picture)->bitmap), 2);
            const auto again = decoded(reencoded(*file, {std::nullopt, std::nullopt, 1.0F}));
            ASSERT_TRUE(again);
            EXPECT_LE(largestDifference(*again, *result), 1);
        }
    }
}

TEST_F(ImageCodecTest, densityCommentAndOrientationAreReadByOtherPrograms) {
    const Bytes source = *codec.encodeJpeg({blocks(64, 32), ImageOrientation::Right}, 1.0);
    EXPECT_FALSE(propertiesOf(*reencoded(source, {})).exif);
    ImageProperties properties = propertiesOf(source);
    properties.lossyCompressionQuality = 0.95F;
    properties.exif->userComment = "Grüße";
    EXPECT_FALSE(reencoded(source, properties)) << "not ASCII";
    EXPECT_FALSE(codec.userCommentFits("Grüße"));

    properties.jfif = JfifProperties{72, 71, 1};
    properties.exif->userComment = R"({"Model":"Gr\u00fc\u00dfe"})";
    const auto file = reencoded(source, properties);
    ASSERT_TRUE(file);
    const ImageProperties read = propertiesOf(*file);
    EXPECT_EQ(read.exif->userComment, properties.exif->userComment);
    EXPECT_EQ(read.exif->orientation, 6);
    EXPECT_EQ((std::array{read.jfif->xDensity, read.jfif->yDensity, read.jfif->densityUnit}), (std::array{72, 71, 1}));
    const std::string path = directory.write("photograph.jpg", *file);
    EXPECT_EQ(outputOf("exiftool -n -s3 -JFIF:all -Orientation -UserComment " + path),
              "1 1\n1\n72\n71\n6\n" + *properties.exif->userComment + "\n");
    EXPECT_EQ(outputOf("exif --tag=UserComment --machine-readable " + path), *properties.exif->userComment + "\n");

    properties.exif->userComment = "";
    EXPECT_EQ(propertiesOf(*reencoded(source, properties)).exif->userComment, "");
}

TEST_F(ImageCodecTest, anySourceIsEncodedAnew) {
    const std::pair<const char*, const char*> table[] = {{"-sampling-factor 4:4:4", "YCbCr4:4:4 (1 1)"},
                                                         {"-sampling-factor 4:2:2 -interlace JPEG", "YCbCr4:2:2 (2 1)"},
                                                         {"-sampling-factor 3x1", "YCbCr4:2:0 (2 2)"},
                                                         {"-colorspace CMYK", "YCbCr4:2:0 (2 2)"},
                                                         {"-colorspace Gray", ""}};
    for (const auto& [options, sampling] : table) {
        SCOPED_TRACE(options);
        const Bytes source = fileOf("a.jpg", options);
        const auto file = reencoded(source, {std::nullopt, std::nullopt, 1.0F});
        ASSERT_TRUE(file);
        expectQuarters(*decoded(file), quartersOf(*decoded(source)));
        const std::string said =
            outputOf("exiftool -s3 -EncodingProcess -YCbCrSubSampling " + directory.write("again.jpg", *file));
        EXPECT_THAT(said, testing::StartsWith("Baseline DCT"));
        EXPECT_THAT(said, testing::HasSubstr(sampling));
    }
}

TEST_F(ImageCodecTest, qualityDecidesTheTablesAndIsClamped) {
    const Image image{blocks(160, 120)};
    const auto sizeAt = [&](double quality) { return codec.encodeJpeg(image, quality)->size(); };
    EXPECT_LT(sizeAt(0.01), sizeAt(0.05));
    EXPECT_LT(sizeAt(0.05), sizeAt(1.0));
    EXPECT_EQ(sizeAt(-3.0), sizeAt(0.01));
    EXPECT_EQ(sizeAt(7.0), sizeAt(1.0));
    EXPECT_EQ(sizeAt(std::numeric_limits<double>::quiet_NaN()), sizeAt(1.0));
    const Bytes full = *codec.encodeJpeg(image, 1.0);
    for (const float quality : {0.05F, 0.95F}) {  // the tables are those of the same quality asked for directly
        const Bytes direct = *codec.encodeJpeg(image, quality);
        const Bytes again = *reencoded(full, {std::nullopt, std::nullopt, quality});
        EXPECT_TRUE(std::equal(direct.begin(), direct.begin() + 158, again.begin())) << quality;
    }
}

TEST_F(ImageCodecTest, aCommentFitsExactlyUpToOneSegment) {
    const Bytes source = *codec.encodeJpeg({blocks(16, 16)}, 1.0);
    std::size_t longest = 0;
    for (std::size_t step = 65536; step > 0; step /= 2) {
        if (codec.userCommentFits(std::string(longest + step, 'x'))) longest += step;
    }
    EXPECT_GT(longest, 65400u);
    EXPECT_LT(longest, 65533u);
    EXPECT_FALSE(codec.userCommentFits(std::string(1 << 20, 'x')));
    const auto written = [&](std::size_t length) {
        return reencoded(source, {std::nullopt, ExifProperties{std::string(length, 'x'), 1}, std::nullopt});
    };
    ASSERT_TRUE(written(longest));
    EXPECT_EQ(propertiesOf(*written(longest)).exif->userComment->size(), longest);
    EXPECT_FALSE(written(longest + 1));
}

TEST_F(ImageCodecTest, nothingComesOfWhatIsNoPicture) {
    EXPECT_FALSE(codec.encodeJpeg({}, 1.0));
    EXPECT_FALSE(codec.encodeJpeg({PixelBuffer::wrap(PixelBufferLayout{}, {}, {})}, 1.0));
    const Bytes whole = *codec.encodeJpeg({blocks(64, 32)}, 0.9);
    EXPECT_EQ(codec.openSource({}), nullptr);
    EXPECT_EQ(codec.openSource(Bytes(whole.begin(), whole.begin() + 30)), nullptr);
    EXPECT_FALSE(reencoded(Bytes(whole.begin(), whole.end() - 10), {}));
}

}  // namespace
