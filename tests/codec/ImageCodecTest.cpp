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
        return file ? loader.loadImage(directory.write("picture.jpg", *file)).value() : nullptr;
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

/// A smooth picture of many colours, so that the compression loses little.
std::shared_ptr<PixelBuffer> smooth(int width, int height, PixelFormat format) {
    return painted(width, height, format, [&](std::uint8_t* sample, int x, int y, int plane) {
        const auto share = [&](int at, int side) { return 150 * at / (plane == 0 ? side : (side + 1) / 2); };
        const int channels[] = {share(x, width), share(y, height), 90, 90};
        const int count = format == kPixelFormat420v ? 1 + plane : 4;
        for (int i = 0; i < count; ++i) sample[i] = static_cast<std::uint8_t>(40 + channels[i]);
    });
}

/// The largest difference of any channel between two BGRA pictures.
int largestDifference(const PixelBuffer& a, const PixelBuffer& b) {
    int largest = 0;
    for (int y = 0; y < a.height(); ++y) {
        for (int x = 0; x < a.width(); ++x) {
            const Colour one = colourAt(a, x, y);
            const Colour other = colourAt(b, x, y);
            for (std::size_t k = 0; k < 3; ++k) largest = std::max(largest, std::abs(one[k] - other[k]));
        }
    }
    return largest;
}

TEST_F(ImageCodecTest, everyFormatAndOddSizesKeepTheirColours) {
    for (const PixelFormat format : {kPixelFormat32BGRA, kPixelFormat32ARGB, kPixelFormat420v}) {
        for (const auto& [width, height] : {std::pair{64, 48}, {33, 17}, {1, 1}, {7, 131}}) {
            SCOPED_TRACE(testing::Message() << format << " " << width << "x" << height);
            const auto picture = smooth(width, height, format);
            const auto file = codec.encodeJpeg({picture}, 1.0);
            const auto result = decoded(file);
            ASSERT_NE(result, nullptr);
            ASSERT_EQ(result->width(), width);
            ASSERT_EQ(result->height(), height);
            const Bitmap expected = Utilities::imageFromPixelBuffer(picture)->bitmap;
            EXPECT_LE(largestDifference(*result, *expected), 20);  // colour at half size
            const auto again = decoded(reencoded(*file, {std::nullopt, std::nullopt, 1.0F}));
            ASSERT_NE(again, nullptr);
            EXPECT_LE(largestDifference(*again, *result), 3);
        }
    }
}

TEST_F(ImageCodecTest, videoRangeIsStretchedToFullRange) {
    const auto picture = painted(256, 256, kPixelFormat420v, [](std::uint8_t* sample, int x, int y, int plane) {
        if (plane == 0)
            sample[0] = static_cast<std::uint8_t>(y / 16 * 16 +
                                                  x / 16);  // a flat block for every luma, so that nothing is lost
        if (plane == 1) sample[0] = sample[1] = 128;
    });
    const auto result = decoded(codec.encodeJpeg({picture}, 1.0));
    ASSERT_NE(result, nullptr);
    for (int luma = 0; luma < 256; ++luma) {
        const int grey = std::clamp(static_cast<int>(std::lround((luma - 16) * 255.0 / 219.0)), 0, 255);
        EXPECT_EQ(colourAt(*result, luma % 16 * 16 + 5, luma / 16 * 16 + 5), (Colour{grey, grey, grey})) << luma;
    }
}

TEST_F(ImageCodecTest, theOrientationTagBringsThePictureUpright) {
    const std::pair<ImageOrientation, std::optional<int>> table[] = {{ImageOrientation::Up, std::nullopt},
                                                                     {ImageOrientation::Down, 3},
                                                                     {ImageOrientation::Left, 8},
                                                                     {ImageOrientation::Right, 6},
                                                                     {ImageOrientation::UpMirrored, 2},
                                                                     {ImageOrientation::DownMirrored, 4},
                                                                     {ImageOrientation::LeftMirrored, 5},
                                                                     {ImageOrientation::RightMirrored, 7},
                                                                     {static_cast<ImageOrientation>(99), std::nullopt}};
    for (const auto& [orientation, tag] : table) {
        SCOPED_TRACE(static_cast<int>(orientation));
        const auto file = codec.encodeJpeg({quarters(64, 32), orientation}, 1.0);
        ASSERT_TRUE(file);
        const auto exif = propertiesOf(*file).exif;
        EXPECT_EQ(exif ? exif->orientation : std::nullopt, tag);
        expectQuarters(*decoded(file), quartersTurned(tag.value_or(1)));
    }
}

TEST_F(ImageCodecTest, densityCommentAndOrientationStandInOneFile) {
    const Bytes source = *codec.encodeJpeg({quarters(64, 32), ImageOrientation::Right}, 1.0);
    for (const std::string text : {R"({"ObixVersion":"1.6"})", "Grüße, 漢字 😀", ""}) {
        ImageProperties properties = propertiesOf(source);
        properties.jfif = JfifProperties{72, 72, 1};
        properties.exif->userComment = text;
        properties.lossyCompressionQuality = 0.95F;
        const auto file = reencoded(source, properties);
        ASSERT_TRUE(file) << text;
        const Bytes start(file->begin(), file->begin() + 20);
        EXPECT_EQ(start, (Bytes{0xFF, 0xD8, 0xFF, 0xE0, 0, 16, 'J', 'F', 'I', 'F', 0, 1, 1, 1, 0, 72, 0, 72, 0, 0}));
        const ImageProperties read = propertiesOf(*file);
        EXPECT_EQ(read.exif->userComment, text);
        EXPECT_EQ(read.exif->orientation, 6);
    }
    EXPECT_FALSE(propertiesOf(*reencoded(source, {})).exif);
}

TEST_F(ImageCodecTest, qualityDecidesTheTablesAndIsClamped) {
    const Image image{smooth(160, 120, kPixelFormat32BGRA)};
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
    const Bytes source = *codec.encodeJpeg({quarters(16, 16)}, 1.0);
    std::size_t longest = 0;
    for (std::size_t step = 65536; step > 0; step /= 2) {
        if (codec.userCommentFits(std::string(longest + step, 'x'))) longest += step;
    }
    EXPECT_GT(longest, 65400u);
    EXPECT_LT(longest, 65533u);
    EXPECT_FALSE(codec.userCommentFits(std::string(1 << 20, 'x')));
    EXPECT_EQ(codec.userCommentFits(std::string(longest / 2, 'x') + "\xC3\xA4"), false)
        << "two bytes a letter once one is not ASCII";
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
    const Bytes whole = *codec.encodeJpeg({quarters(64, 32)}, 0.9);
    EXPECT_EQ(codec.openSource({}), nullptr);
    EXPECT_EQ(codec.openSource(Bytes(whole.begin(), whole.begin() + 30)), nullptr);
    EXPECT_FALSE(reencoded(Bytes(whole.begin(), whole.end() - 10), {}));
}

}  // namespace
