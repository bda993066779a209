#include "codec/PictureFiles.h"

#include <SelvioFacialCapture/linux/Codec.h>

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <zlib.h>

namespace {

using namespace selvio;
using namespace selvio::test;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

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

TEST_F(ImageLoaderTest, readsEveryKindOfPicture) {
    const Colour black{0, 0, 0}, grey{76, 76, 76}, half{128, 128, 128};
    const std::pair<std::string, Quarters> colours{"red lime blue white", kQuarters},
        greys{"#000 #4C4C4C #808080 #FFF", {black, grey, half, kWhite}},
        faded{"red lime #0000FF80 #FFFFFF80", {kRed, kGreen, {128, 0, 0}, half}},
        fadedGreys{"#000 #FFF #00000080 #FFFFFF80", {black, kWhite, black, half}};
    const struct {
        const char* name;
        std::string options;
        std::pair<std::string, Quarters> picture;
    } table[] = {
        {"a.jpg", "-interlace none", colours},
        {"a.jpg", "-interlace JPEG", colours},
        {"a.jpg", "-sampling-factor 3x1", colours},
        {"a.jpg", "-colorspace CMYK", colours},
        {"a.jpg", "-colorspace Gray", greys},
        {"a.png", "-define png:color-type=2 -define png:bit-depth=16", colours},
        {"a.png", "-define png:color-type=3", colours},
        {"a.png", "-define png:color-type=0 -define png:bit-depth=16 -interlace PNG", greys},
        {"a.png", "-define png:color-type=4", fadedGreys},
        {"a.png", "-define png:color-type=6", faded},
        {"a.png", "-define png:color-type=6 -define png:bit-depth=16 -interlace PNG", faded},
    };
    for (const auto& c : table) {
        SCOPED_TRACE(c.name + (" " + c.options));
        const auto picture = loader.loadImage(directory.write("a", fileOf(c.name, c.options, c.picture.first)));
        ASSERT_TRUE(picture) << picture.error().localizedDescription;
        expectQuarters(*picture.value(), c.picture.second);
    }
}

TEST_F(ImageLoaderTest, appliesThePicturesOwnOrientation) {
    const std::pair<std::string, Bytes> files[] = {
        {".jpg", fileOf("a.jpg")}, {".png", fileOf("a.png")}, {"-interlaced.png", fileOf("a.png", "-interlace PNG")}};
    std::string tagging = "cd " + directory.path().string() + "; exiftool";
    for (char tag = '1'; tag <= '8'; ++tag) {
        tagging = tagging + " -Orientation=" + tag;
        for (const auto& [name, file] : files) {
            directory.write(tag + name, file);
            tagging += " " + (tag + name);
        }
        tagging += " -execute";
    }
    outputOf(tagging + " -common_args -q -q -n -overwrite_original");
    for (int orientation = 1; orientation <= 8; ++orientation) {
        for (const auto& [name, file] : files) {
            SCOPED_TRACE(std::to_string(orientation) + name);
            const auto picture = loader.loadImage(directory.path() / (std::to_string(orientation) + name));
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
    const Bytes jpeg = fileOf("a.jpg");
    const std::string endless = directory.write("endless.jpg", jpeg);
    std::filesystem::resize_file(endless, std::uintmax_t{1} << 40);
    EXPECT_THAT(errorOf(endless), HasSubstr("longer than any picture"));
    EXPECT_THAT(errorOf(patched(jpeg, frameOf(jpeg) + 1, 0xC9, 1)), HasSubstr("arithmetic"));
    EXPECT_THAT(errorOf("/nowhere/two\nlines.jpg"), AllOf(HasSubstr("two?lines.jpg: "), Not(HasSubstr("\n"))));
}

TEST_F(ImageLoaderTest, aFileCutShortAnywhereIsAnErrorAndNoGreyPicture) {
    for (const auto& [name, options] : {std::pair{"a.jpg", "-interlace none"},
                                        {"a.jpg", "-interlace JPEG"},
                                        {"a.png", "-strip"},
                                        {"a.png", "-strip -interlace PNG"}}) {
        const Bytes file = fileOf(name, options);
        // A PNG's last bytes, its end marker, come after the picture.
        const std::size_t picture = file[0] == 0xFF ? file.size() : file.size() - 16;
        for (std::size_t length = 8; length < picture; length += 7) {
            ASSERT_THAT(errorOf(Bytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(length))),
                        HasSubstr("/bad: "))
                << options << ": " << length << " of " << file.size();
        }
    }
}

TEST_F(ImageLoaderTest, superfluousBytesLoseNothingButDamageDoes) {
    for (const char* const options : {"-interlace none", "-interlace JPEG"}) {
        const Bytes file = fileOf("a.jpg", options);
        Bytes padded = file;
        padded.insert(padded.end() - 2, 40, 0);
        EXPECT_EQ(errorOf(padded), "") << options;
        // With its last samples cut away as well it is no sound picture any more, whatever stands before its end.
        Bytes damaged(file.begin(), file.end() - 12);
        damaged.insert(damaged.end(), {0xFF, 0xD9});
        EXPECT_THAT(errorOf(damaged), HasSubstr("cut short")) << options;
    }
}

TEST_F(ImageLoaderTest, whatAFileOnlyClaimsCostsNoMemory) {
    const auto peakBytes = [] {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_maxrss * 1024;
    };
    const Bytes files[] = {fileOf("a.jpg"), fileOf("a.jpg", "-interlace JPEG"), fileOf("a.jpg", "-colorspace Gray"),
                           fileOf("a.png"), fileOf("a.png", "-interlace PNG")};
    const auto before = peakBytes();
    for (const auto& [side, reason] : {std::pair{65535U, "claims 65535 x 65535 pixels"},
                                       {30000U, "claims 30000 x 30000 pixels"},
                                       {16000U, "cut short"}}) {
        for (const Bytes& file : files) EXPECT_THAT(errorOf(claimingSize(file, side, side)), HasSubstr(reason));
    }
    EXPECT_THAT(errorOf(claimingSize(files[3], 0x7FFFFFFF, 1)), HasSubstr("/bad: "));
    EXPECT_THAT(errorOf(claimingSize(files[3], 0, 5)), HasSubstr("/bad: "));
    EXPECT_THAT(errorOf(claimingSize(files[0], 5, 0)), HasSubstr("/bad: "));
    EXPECT_LT(peakBytes() - before, 16 << 20);
}

}  // namespace
