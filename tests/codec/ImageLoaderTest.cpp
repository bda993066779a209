#include "codec/PictureFiles.h"

#include <SelvioFacialCapture/linux/Codec.h>

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

using namespace selvio;
using namespace selvio::test;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class ImageLoaderTest : public testing::Test {
protected:
    [[nodiscard]] std::string errorOf(const std::string& path) const {
        const auto result = loader.loadImage(path);
        return result ? "" : result.error().localizedDescription;
    }
    [[nodiscard]] std::string errorOf(const Bytes& file) const { return errorOf(directory.write("bad", file)); }

    const TemporaryDirectory directory;
    const JpegPngImageLoader loader;
};

constexpr std::array<Colour, 4> kQuarters{kRed, kGreen, kBlue, kWhite};

TEST_F(ImageLoaderTest, readsEveryKindOfJpeg) {
    for (const JpegKind kind : {JpegKind::Baseline, JpegKind::Progressive, JpegKind::Cmyk}) {
        const auto picture = loader.loadImage(directory.write("a.jpg", jpegFile(kind, 70, 50)));
        ASSERT_TRUE(picture) << picture.error().localizedDescription;
        expectQuarters(*picture.value(), kQuarters);
    }
    const auto grey = loader.loadImage(directory.write("a.jpg", jpegFile(JpegKind::Grey, 70, 50)));
    expectQuarters(*grey.value(), {Colour{76, 76, 76}, {150, 150, 150}, {29, 29, 29}, kWhite});
}

TEST_F(ImageLoaderTest, readsEveryKindOfPng) {
    const Colour black{0, 0, 0}, half{128, 128, 128};
    const std::pair<PngKind, std::array<Colour, 4>> table[] = {
        {{.colourType = 2, .bitDepth = 16}, kQuarters},
        {{.colourType = 3}, kQuarters},
        {{.colourType = 0, .bitDepth = 16, .interlaced = true}, {black, kWhite, black, kWhite}},
        {{.colourType = 4}, {black, kWhite, black, half}},
        {{.colourType = 6}, {kRed, kGreen, Colour{128, 0, 0}, half}},
        {{.colourType = 6, .bitDepth = 16, .interlaced = true}, {kRed, kGreen, Colour{128, 0, 0}, half}},
    };
    for (const auto& [kind, expected] : table) {
        SCOPED_TRACE(testing::Message() << "colour type " << kind.colourType << ", " << kind.bitDepth << " bits");
        const auto picture = loader.loadImage(directory.write("a.png", pngFile(kind, 70, 50)));
        ASSERT_TRUE(picture) << picture.error().localizedDescription;
        expectQuarters(*picture.value(), expected);
    }
}

TEST_F(ImageLoaderTest, appliesThePicturesOwnOrientation) {
    const LibjpegImageCodec codec;
    for (int orientation = 1; orientation <= 8; ++orientation) {
        const auto source = codec.openSource(jpegFile(JpegKind::Baseline, 70, 50));
        const Bytes files[] = {
            *codec.encodeFromSource(*source, {std::nullopt, ExifProperties{std::nullopt, orientation}, std::nullopt}),
            pngFile({.orientation = orientation}, 70, 50),
            pngFile({.interlaced = true, .orientation = orientation}, 70, 50)};
        for (const Bytes& file : files) {
            SCOPED_TRACE(orientation);
            const auto picture = loader.loadImage(directory.write("a", file));
            ASSERT_TRUE(picture) << picture.error().localizedDescription;
            EXPECT_EQ(picture.value()->width(), orientation < 5 ? 70 : 50);
            expectQuarters(*picture.value(), quartersTurned(orientation));
        }
    }
}

TEST_F(ImageLoaderTest, namesTheFileAndTheReasonInOneLine) {
    const std::string path = directory.path() / "missing.jpg";
    EXPECT_EQ(errorOf(path), path + ": No such file or directory");
    EXPECT_THAT(errorOf(directory.path().string()), HasSubstr("a directory, not a picture"));
    const std::string pipe = directory.path() / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_THAT(errorOf(pipe), HasSubstr("not a regular file"));
    EXPECT_THAT(errorOf(Bytes{}), HasSubstr("empty"));
    EXPECT_THAT(errorOf(Bytes{'t', 'e', 'x', 't'}), HasSubstr("neither JPEG nor PNG"));
    EXPECT_THAT(errorOf(Bytes{0xFF, 0xD8, 0xFF, 'x', 'y'}), HasSubstr("/bad: "));
    EXPECT_THAT(errorOf(jpegFile(JpegKind::Arithmetic, 64, 64)), HasSubstr("arithmetic"));
    EXPECT_THAT(errorOf("/nowhere/two\nlines.jpg"), AllOf(HasSubstr("two?lines.jpg: "), Not(HasSubstr("\n"))));
}

TEST_F(ImageLoaderTest, aFileCutShortAnywhereIsAnErrorAndNoGreyPicture) {
    const Bytes files[] = {jpegFile(JpegKind::Baseline, 120, 90), jpegFile(JpegKind::Progressive, 120, 90),
                           pngFile({}, 120, 90), pngFile({.interlaced = true}, 120, 90)};
    for (const Bytes& file : files) {
        // A PNG's last bytes, its end marker, come after the picture.
        const std::size_t picture = file[0] == 0xFF ? file.size() : file.size() - 16;
        for (std::size_t length = 8; length < picture; length += 23) {
            ASSERT_THAT(errorOf(Bytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(length))),
                        HasSubstr("/bad: "))
                << length << " of " << file.size();
        }
    }
}

TEST_F(ImageLoaderTest, whatAFileOnlyClaimsCostsNoMemory) {
    const auto peakBytes = [] {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_maxrss * 1024;
    };
    const Bytes jpegs[] = {jpegFile(JpegKind::Baseline, 120, 90), jpegFile(JpegKind::Progressive, 120, 90),
                           jpegFile(JpegKind::Grey, 120, 90)};
    const Bytes pngs[] = {pngFile({}, 120, 90), pngFile({.interlaced = true}, 120, 90),
                          pngFile({.colourType = 6, .bitDepth = 16}, 120, 90)};
    const auto before = peakBytes();
    for (const auto& [side, reason] : {std::pair{65535, "claims 65535 x 65535 pixels"},
                                       {30000, "claims 30000 x 30000 pixels"},
                                       {16000, "cut short"}}) {
        for (const Bytes& file : jpegs) EXPECT_THAT(errorOf(claimingJpegSize(file, side, side)), HasSubstr(reason));
        for (const Bytes& file : pngs)
            EXPECT_THAT(
                errorOf(claimingPngSize(file, static_cast<std::uint32_t>(side), static_cast<std::uint32_t>(side))),
                HasSubstr(reason));
    }
    EXPECT_THAT(errorOf(claimingPngSize(pngs[0], 0x7FFFFFFF, 1)), HasSubstr("/bad: "));
    EXPECT_THAT(errorOf(claimingPngSize(pngs[0], 0, 5)), HasSubstr("/bad: "));
    EXPECT_THAT(errorOf(claimingJpegSize(jpegs[0], 5, 0)), HasSubstr("/bad: "));
    EXPECT_LT(peakBytes() - before, 16 << 20);
}

}  // namespace
