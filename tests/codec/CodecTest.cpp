// Pictures of four flat quarters on their way into files and out of them, which other programs write and read too.
#include <SelvioFacialCapture/SelvioFacialCaptureImageUtilities.h>
#include <SelvioFacialCapture/linux/Codec.h>

#include "platform/linux/codec/ExifSegment.h"
#include "support/MediaProbe.h"
#include "support/Pixels.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <zlib.h>

namespace {

using namespace selvio;
using testing::HasSubstr;
using Utilities = SelvioFacialCaptureImageUtilities;

/// Blue, green and red; and those of the quarters from the top left in reading order.
using Colour = std::array<int, 3>;
using Quarters = std::array<Colour, 4>;
const Colour kRed{0, 0, 255}, kGreen{0, 255, 0}, kBlue{255, 0, 0}, kWhite{255, 255, 255}, kBlack{};
const Quarters kQuarters{kRed, kGreen, kBlue, kWhite};

Quarters quartersOf(const PixelBuffer& bgra) {
    Quarters quarters;
    for (int i = 0; i < 4; ++i) {
        const auto* const p = sampleAt(bgra, bgra.width() * (i % 2 * 2 + 1) / 4, bgra.height() * (i / 2 * 2 + 1) / 4);
        quarters[static_cast<std::size_t>(i)] = {p[0], p[1], p[2]};
    }
    return quarters;
}
void expectPicture(const std::shared_ptr<const PixelBuffer>& bgra, int width, int height, const Quarters& expected) {
    ASSERT_NE(bgra, nullptr);
    EXPECT_EQ(std::tuple(bgra->format(), bgra->width(), bgra->height()), std::tuple(kPixelFormat32BGRA, width, height));
    const Quarters got = quartersOf(*bgra);
    for (std::size_t i = 0; i < 12; ++i)
        EXPECT_NEAR(got[i / 3][i % 3], expected[i / 3][i % 3], 3) << "quarter " << i / 3 << " channel " << i % 3;
}

/// Its colours are in the gamut of 420v too.
std::shared_ptr<PixelBuffer> quarters(int width, int height, PixelFormat format) {
    return painted(width, height, format, [&](std::uint8_t* sample, int x, int y, int plane) {
        const int half = plane == 0 ? 2 : 4;
        const int luma = 45 + (x >= width / half ? 40 : 0) + (y >= height / half ? 80 : 0), hue = luma % 61;
        const int values[] = {plane == 0 ? luma : 98 + hue, plane == 0 ? luma * 37 : 158 - hue, luma * 91, 255};
        std::copy_n(values, format == kPixelFormat420v ? plane + 1 : 4, sample);
    });
}

const std::string kDrawing = "xc:red xc:lime +append ) ( xc:blue xc:white";  ///< of kQuarters

/// A picture of 70 x 50 pixels as `convert` writes it, with options of its; its format is that of the name.
Bytes fileOf(const std::string& name, const std::string& options = "", const std::string& drawing = kDrawing) {
    const TemporaryDirectory directory;
    const std::string path = directory.path() / name;
    outputOf("set -f; convert -size 35x25 $(echo '( " + drawing + " +append ) -append') " + options + " " + path);
    const std::string content = contentOf(path);
    return {content.begin(), content.end()};
}

/// The file with a number in big-endian order written over `count` bytes.
Bytes patched(Bytes file, std::size_t at, std::uint64_t number, int count) {
    for (int i = count - 1; i >= 0; --i) file[at++] = static_cast<std::uint8_t>(number >> (8 * i));
    return file;
}
/// Where a JPEG's frame header begins, its marker.
std::size_t frameOf(const Bytes& jpeg) {
    const auto isFrame = [](std::uint8_t a, std::uint8_t b) { return a == 0xFF && (b == 0xC0 || b == 0xC2); };
    return static_cast<std::size_t>(std::adjacent_find(jpeg.begin(), jpeg.end(), isFrame) - jpeg.begin());
}
Bytes claimingSize(const Bytes& file, std::uint32_t width, std::uint32_t height) {
    if (file[0] == 0xFF) return patched(patched(file, frameOf(file) + 5, height, 2), frameOf(file) + 7, width, 2);
    const Bytes claiming = patched(patched(file, 16, width, 4), 20, height, 4);
    return patched(claiming, 29, crc32(0, claiming.data() + 12, 17), 4);
}

struct Codec : testing::Test {
    [[nodiscard]] std::shared_ptr<PixelBuffer> loaded(const Bytes& file) const {
        return loader.loadImage(directory.write("picture", file)).value();
    }
    [[nodiscard]] std::string errorOf(const std::string& path) const {
        const auto result = loader.loadImage(path);
        return result ? "" : result.error().localizedDescription;
    }
    [[nodiscard]] std::string errorOf(const Bytes& file) const { return errorOf(directory.write("bad", file)); }
    [[nodiscard]] ImageProperties propertiesOf(const Bytes& file) const { return codec.openSource(file)->properties(); }
    [[nodiscard]] std::optional<Bytes> reencoded(const Bytes& file, const ImageProperties& properties) const {
        const auto source = codec.openSource(file);
        return source ? codec.encodeFromSource(*source, properties) : std::nullopt;
    }

    const TemporaryDirectory directory;
    const LibjpegImageCodec codec{};
    const JpegPngImageLoader loader{};
};

TEST_F(Codec, EveryFormatAndOddSizesKeepTheirColours) {
    for (const PixelFormat format : {kPixelFormat32BGRA, kPixelFormat32ARGB, kPixelFormat420v}) {
        for (const auto& [width, height] : {std::pair{70, 50}, {23, 45}}) {
            SCOPED_TRACE(testing::Message() << format << " " << width);
            const auto picture = quarters(width, height, format);
            const Quarters colours = quartersOf(*Utilities::imageFromPixelBuffer(picture)->bitmap);
            const Bytes file = codec.encodeJpeg({picture}, 1.0).value();
            expectPicture(loaded(file), width, height, colours);
            expectPicture(loaded(reencoded(file, {std::nullopt, std::nullopt, 1.0F}).value()), width, height, colours);
        }
    }
}

TEST_F(Codec, DensityCommentAndOrientationAreReadByOtherPrograms) {
    const Image image{quarters(64, 32, kPixelFormat32BGRA), ImageOrientation::Right};
    const Bytes source = *codec.encodeJpeg(image, 1.0);
    EXPECT_FALSE(propertiesOf(*reencoded(source, {})).exif);
    ImageProperties properties = propertiesOf(source);
    properties.exif->userComment = "Grüße";
    EXPECT_FALSE(reencoded(source, properties)) << "not ASCII";
    EXPECT_FALSE(codec.userCommentFits("Grüße"));

    properties.jfif = JfifProperties{72, 71, 1};
    const std::string comment = R"({"Model":"Gr\u00fc\u00dfe"})";
    for (const std::string& text : {std::string(), comment}) {
        properties.exif->userComment = text;
        const Bytes file = reencoded(source, properties).value();
        EXPECT_EQ(propertiesOf(file).exif->userComment, text);
        directory.write("photograph.jpg", file);
    }
    const std::string path = directory.path() / "photograph.jpg";
    const ImageProperties read = propertiesOf(reencoded(source, properties).value());
    const JfifProperties& jfif = *read.jfif;
    EXPECT_EQ((std::array{read.exif->orientation.value(), jfif.xDensity, jfif.yDensity, jfif.densityUnit}),
              (std::array{6, 72, 71, 1}));
    EXPECT_EQ(outputOf("exiftool -n -s3 -JFIF:all -Orientation -UserComment " + path),
              "1 1\n1\n72\n71\n6\n" + comment + "\n");
    EXPECT_EQ(outputOf("exif --tag=UserComment --machine-readable " + path), comment + "\n");
    EXPECT_FALSE(readExifSegment(*makeExifSegment({std::nullopt, 9}))->orientation) << "there is no such one";

    std::string longest(65400, 'x');  // still fits a segment
    while (codec.userCommentFits(longest + 'x') && longest.size() < 65533) longest += 'x';
    EXPECT_EQ(propertiesOf(reencoded(source, {{}, ExifProperties{longest, 1}, {}}).value()).exif->userComment, longest);
    EXPECT_FALSE(reencoded(source, {{}, ExifProperties{longest + 'x', 1}, {}}));
}

TEST_F(Codec, EveryKindOfPictureIsReadAndEveryJpegEncodedAnew) {
    const Quarters greys{kBlack, kWhite, kBlack, kWhite}, faded{kRed, kGreen, {0, 0, 128}, {128, 128, 128}};
    const std::string grey = "xc:#000 xc:#FFF +append ) ( xc:#000 xc:#FFF";
    // With the sampling of the JPEG encoded anew, what the picture shows, and how it is drawn.
    const std::tuple<std::string, std::string, std::string, Quarters, std::string> table[] = {
        {"a.jpg", "-sampling-factor 4:2:2 -interlace JPEG", "YCbCr4:2:2 (2 1)", kQuarters, kDrawing},
        {"a.jpg", "-sampling-factor 3x1", "YCbCr4:2:0 (2 2)", kQuarters, kDrawing},
        {"a.jpg", "-colorspace CMYK", "YCbCr4:2:0 (2 2)", kQuarters, kDrawing},
        {"a.jpg", "-colorspace Gray", "", greys, grey},
        {"a.png", "-define png:color-type=3", "", kQuarters, kDrawing},
        {"a.png", "-define png:color-type=0 -define png:bit-depth=16 -interlace PNG", "", greys, grey},
        {"a.png", "-define png:color-type=6", "", faded, "xc:red xc:lime +append ) ( xc:#FF000080 xc:#FFFFFF80"},
    };
    for (const auto& [name, options, sampling, picture, drawing] : table) {
        SCOPED_TRACE(testing::Message() << name << ' ' << options);
        const Bytes file = fileOf(name, options, drawing);
        expectPicture(loaded(file), 70, 50, picture);
        if (file[0] != 0xFF) continue;
        const Bytes anew = reencoded(file, {std::nullopt, std::nullopt, 1.0F}).value();
        expectPicture(loaded(anew), 70, 50, picture);
        EXPECT_THAT(outputOf("exiftool -s3 -YCbCrSubSampling " + directory.write("anew.jpg", anew)),
                    HasSubstr(sampling));
    }
}

TEST_F(Codec, QualityDecidesTheTablesAndIsClamped) {
    const Image image{quarters(160, 120, kPixelFormat32BGRA)};
    const auto tablesOf = [](Bytes file) { return Bytes(file.begin(), file.begin() + 158); };
    const auto tablesAt = [&](double quality) { return tablesOf(*codec.encodeJpeg(image, quality)); };
    EXPECT_NE(tablesAt(-3.0), tablesAt(0.05));
    EXPECT_EQ(tablesAt(NAN), tablesAt(1.0));
    EXPECT_EQ(tablesOf(*reencoded(*codec.encodeJpeg(image, 1.0), {std::nullopt, std::nullopt, 0.05F})), tablesAt(0.05));
}

TEST_F(Codec, ThePicturesOwnOrientationIsApplied) {
    const Colour r = kRed, g = kGreen, b = kBlue, w = kWhite;
    const Quarters turned[] = {{r, g, b, w}, {g, r, w, b}, {w, b, g, r}, {b, w, r, g},
                               {r, b, g, w}, {b, r, w, g}, {w, g, b, r}, {g, w, r, b}};
    for (const std::string name : {"a.jpg", "a.png"}) {
        for (int orientation = 1; orientation <= 8; ++orientation) {
            SCOPED_TRACE(std::to_string(orientation) + name);
            const std::string path = directory.write(name, fileOf(name));
            outputOf("exiftool -q -q -n -overwrite_original -Orientation=" + std::to_string(orientation) + " " + path);
            const bool upright = orientation < 5;
            expectPicture(loader.loadImage(path).value(), upright ? 70 : 50, upright ? 50 : 70,
                          turned[orientation - 1]);
        }
    }
}

TEST_F(Codec, BadFilesAreNamedWithTheReasonInOneLine) {
    const std::string pipe = directory.path() / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const Bytes jpeg = fileOf("a.jpg"), png = fileOf("a.png");
    const std::string endless = directory.write("endless.jpg", jpeg);
    std::filesystem::resize_file(endless, std::uintmax_t{1} << 40);
    const std::pair<std::string, std::string> table[] = {
        {errorOf("/nowhere/two\nlines.jpg"), "two?lines.jpg: No such file or directory"},
        {errorOf(pipe), "not a regular file"},
        {errorOf(endless), "longer than any picture"},
        {errorOf(Bytes{'t', 'e', 'x', 't'}), "neither JPEG nor PNG"},
        {errorOf(patched(jpeg, frameOf(jpeg) + 1, 0xC9, 1)), "arithmetic"},
        {errorOf(claimingSize(png, 0, 5)), "/bad: "},
    };
    for (const auto& [message, reason] : table)
        EXPECT_THAT(message, testing::AllOf(HasSubstr(reason), testing::Not(HasSubstr("\n"))));
    // An end marker before the frame ends the picture, also one that looks like a segment behind bytes of no meaning.
    for (const Bytes& end : {Bytes{0xFF, 0xD9, 0, 2}, Bytes{0, 0xFF, 0xD9, 0, 2}}) {
        Bytes file = jpeg;
        file.insert(file.begin() + 20, end.begin(), end.end());
        EXPECT_THAT(errorOf(file), HasSubstr("it ends before its picture"));
        EXPECT_FALSE(reencoded(file, {}));
    }
    EXPECT_FALSE(codec.encodeJpeg({}, 1.0));
    EXPECT_EQ(codec.openSource(Bytes(jpeg.begin(), jpeg.begin() + 30)), nullptr);
    EXPECT_FALSE(reencoded(Bytes(jpeg.begin(), jpeg.end() - 10), {}));
}

TEST_F(Codec, WhatAFileOnlyClaimsCostsNoMemory) {
    const Bytes files[] = {fileOf("a.jpg"), fileOf("a.jpg", "-interlace JPEG"), fileOf("a.png")};
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    for (const auto& [side, reason] : {std::pair{30000U, "claims 30000 x 30000 pixels"}, {16000U, "cut short"}}) {
        for (const Bytes& file : files) EXPECT_THAT(errorOf(claimingSize(file, side, side)), HasSubstr(reason));
    }
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 16 << 10) << "KiB";
}

TEST_F(Codec, AFileCutShortAnywhereIsAnErrorAndNoGreyPicture) {
    for (const auto& [name, options] :
         {std::pair{"a.jpg", "-interlace none"}, {"a.jpg", "-interlace JPEG"}, {"a.png", "-strip -interlace PNG"}}) {
        SCOPED_TRACE(options);
        const Bytes file = fileOf(name, options);
        const bool isJpeg = file[0] == 0xFF;
        // A PNG's last bytes, its end marker, come after the picture.
        for (std::size_t length = 8; length < (isJpeg ? file.size() : file.size() - 16); length += 7) {
            const Bytes cut(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(length));
            ASSERT_THAT(errorOf(cut), HasSubstr("/bad: ")) << length << " of " << file.size();
        }
        if (!isJpeg) continue;
        // A file that lost its last samples is damaged although it ends as a sound one does.
        Bytes damaged(file.begin(), file.end() - 12);
        damaged.insert(damaged.end(), {0xFF, 0xD9});
        EXPECT_THAT(errorOf(damaged), HasSubstr("cut short"));
        Bytes padded = file;
        padded.insert(padded.end() - 2, 40, 0);
        EXPECT_EQ(errorOf(padded), "") << "superfluous bytes lose nothing";
    }
}

}  // namespace
