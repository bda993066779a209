#include "platform/linux/codec/PngFile.h"

#include "platform/linux/codec/ExifSegment.h"
#include "platform/linux/codec/PictureLimits.h"

#include <png.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

namespace selvio {
namespace {

constexpr std::uint64_t kMostDeflation = 1032;  // deflate packs at most so many bytes into one

/// A libpng reader. libpng leaves a failed call by longjmp, so a call runs in `attempt`, whose function must own
/// nothing.
class PngReader {
public:
    PngReader() {
        png_ = png_create_read_struct(
            PNG_LIBPNG_VER_STRING, this,
            [](png_structp png, png_const_charp text) {
                static_cast<PngReader*>(png_get_error_ptr(png))->keepReason(text);
                png_longjmp(png, 1);
            },
            [](png_structp, png_const_charp) {});
        if (png_) info_ = png_create_info_struct(png_);
    }
    PngReader(const PngReader&) = delete;
    PngReader& operator=(const PngReader&) = delete;
    ~PngReader() { png_destroy_read_struct(&png_, &info_, nullptr); }

    [[nodiscard]] bool isMade() const { return info_ != nullptr; }
    [[nodiscard]] png_structp png() const { return png_; }
    [[nodiscard]] png_infop info() const { return info_; }

    template <typename Calls>
    bool attempt(const Calls& calls) {
        if (setjmp(png_jmpbuf(png_)) != 0) return false;
        calls();
        return true;
    }

    [[nodiscard]] std::string reason() const {
        const std::string_view text(reason_.data());
        const bool endedEarly = text == "Read Error" || text == "Not enough image data";
        return endedEarly ? "cut short" : "not a sound PNG: " + std::string(text);
    }

private:
    void keepReason(const char* text) { std::strncpy(reason_.data(), text, reason_.size() - 1); }

    png_structp png_ = nullptr;
    png_infop info_ = nullptr;
    std::array<char, 128> reason_{};
};

/// Nothing that could unpack into more memory than the picture: texts, profiles and palettes of no use here stay
/// packed.
void skipUnusedChunks(png_structp png) {
    static const png_byte names[] = "iCCP\0iTXt\0tEXt\0zTXt\0sPLT\0hIST";
    png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, names, static_cast<int>(sizeof(names) / 5));
}

/// Every kind of PNG as 8-bit B, G, R, A. Returns the passes over the picture.
int askForBgra(png_structp png, png_infop info) {
    png_set_expand(png);
    png_set_scale_16(png);
    png_set_gray_to_rgb(png);
    png_set_bgr(png);
    png_set_add_alpha(png, 0xFF, PNG_FILLER_AFTER);
    const int passes = png_set_interlace_handling(png);
    png_read_update_info(png, info);
    return passes;
}

void premultiply(std::uint8_t* pixels, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        std::uint8_t* const p = pixels + 4 * i;
        if (p[3] == 255) continue;
        for (std::size_t k = 0; k < 3; ++k) p[k] = static_cast<std::uint8_t>((p[k] * p[3] + 127) / 255);
    }
}

int orientationOf(const PngReader& reader) {
    png_uint_32 size = 0;
    png_bytep exif = nullptr;
    if (png_get_eXIf_1(reader.png(), reader.info(), &size, &exif) == 0 || !exif) return 1;
    std::vector<std::uint8_t> segment{'E', 'x', 'i', 'f', 0, 0};
    segment.insert(segment.end(), exif, exif + std::min<std::size_t>(size, kLongestSegment - segment.size()));
    return readExifSegment(segment).value_or(ExifProperties{}).orientation.value_or(1);
}

}  // namespace

Expected<std::shared_ptr<PixelBuffer>> readPngFile(std::FILE* file, std::size_t fileBytes) {
    PngReader reader;
    if (!reader.isMade()) return Error{"not enough memory"};
    const png_structp png = reader.png();
    const png_infop info = reader.info();
    const bool read = reader.attempt([&] {
        png_init_io(png, file);
        png_set_user_limits(png, PNG_UINT_31_MAX, PNG_UINT_31_MAX);  // judged below
        png_set_chunk_malloc_max(png, std::max<std::size_t>(fileBytes, 65536));
        skipUnusedChunks(png);
        png_read_info(png, info);
    });
    if (!read) return Error{reader.reason()};
    const std::uint64_t claimedWidth = png_get_image_width(png, info);
    const std::uint64_t claimedHeight = png_get_image_height(png, info);
    if (auto problem = sizeProblem(claimedWidth, claimedHeight)) return Error{std::move(*problem)};
    const std::uint64_t packed = claimedHeight * (png_get_rowbytes(png, info) + 1) / kMostDeflation;
    if (auto problem = lengthProblem(fileBytes, packed, claimedWidth, claimedHeight)) return Error{std::move(*problem)};

    const int orientation = orientationOf(reader);
    const auto picture =
        PixelBuffer::create(static_cast<int>(claimedWidth), static_cast<int>(claimedHeight), kPixelFormat32BGRA);
    if (!picture) return Error{"not enough memory for its pixels"};
    const auto rowAt = [&](int y) { return picture->data() + picture->bytesPerRow() * static_cast<std::size_t>(y); };
    const bool done = reader.attempt([&] {
        for (int pass = askForBgra(png, info); pass > 0; --pass) {
            for (int y = 0; y < picture->height(); ++y) png_read_row(png, rowAt(y), nullptr);
        }
    });
    if (!done) return Error{reader.reason()};
    for (int y = 0; y < picture->height(); ++y) premultiply(rowAt(y), static_cast<std::size_t>(picture->width()));
    if (orientation == 1) return picture;
    auto upright = turnedUpright(*picture, orientation);
    if (!upright) return Error{"not enough memory to turn the picture"};
    return upright;
}

}  // namespace selvio
