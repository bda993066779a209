#include "platform/linux/codec/JpegFile.h"

#include "platform/linux/codec/ExifSegment.h"
#include "platform/linux/codec/PictureLimits.h"

#include <turbojpeg.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace selvio {
namespace {

struct DestroyHandle {
    void operator()(void* handle) const { tjDestroy(handle); }
};
using TurboHandle = std::unique_ptr<void, DestroyHandle>;

struct FreeFile {
    void operator()(unsigned char* file) const { tjFree(file); }
};

int bigEndianAt(std::span<const std::uint8_t> bytes, std::size_t at) {
    return bytes[at] << 8 | bytes[at + 1];
}

bool startsWith(std::span<const std::uint8_t> bytes, std::string_view text) {
    return std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()).starts_with(text);
}

/// Reads one segment; `content` is what follows its length.
void readSegment(int marker, std::span<const std::uint8_t> content, JpegHeader& header) {
    const bool isFrame = (marker & 0xF0) == 0xC0 && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
    if (isFrame && content.size() >= 6) {
        header.height = bigEndianAt(content, 1);
        header.width = bigEndianAt(content, 3);
        header.components = content[5];
        header.isArithmetic = marker > 0xC8;
    } else if (marker == 0xE0 && content.size() >= 12 && startsWith(content, "JFIF")) {
        header.jfif = JfifProperties{bigEndianAt(content, 8), bigEndianAt(content, 10), content[7]};
    } else if (marker == 0xE1 && !header.exif) {
        header.exif = readExifSegment(content);
    } else if (marker == 0xEE && startsWith(content, "Adobe")) {
        header.hasAdobeMarker = true;
    }
}

constexpr int kLumaSpan = 219;
constexpr int kChromaSpan = 224;

/// A video-range sample, 16 and `kSpan` more levels, on the full range; colour keeps 128, none, where it is. In 16
/// bits, so that the compiler makes vector instructions of it.
template <int kSpan>
constexpr std::uint8_t fullRange(std::uint8_t sample) {
    constexpr int kRounding = kSpan == kLumaSpan ? kSpan / 2 : kSpan;
    const auto level = static_cast<std::uint16_t>(std::clamp<std::uint8_t>(sample, 16, 16 + kSpan) - 16);
    const auto more = static_cast<std::uint16_t>(level * (255 - kSpan) + kRounding);
    return static_cast<std::uint8_t>(std::min(level + more / kSpan, 255));
}

/// A picture's samples, each component on its own at the size that its subsampling gives it.
class Planes {
public:
    Planes(int width, int height, int sampling) : width_(width), height_(height), sampling_(sampling) {
        for (int i = 0; i < (sampling == TJSAMP_GRAY ? 1 : 3); ++i) {
            const auto component = static_cast<std::size_t>(i);
            samples_[component] =
                std::make_unique_for_overwrite<unsigned char[]>(tjPlaneSizeYUV(i, width, 0, height, sampling));
            pointers_[component] = samples_[component].get();
        }
    }
    [[nodiscard]] int width() const { return width_; }
    [[nodiscard]] int height() const { return height_; }
    [[nodiscard]] int sampling() const { return sampling_; }
    [[nodiscard]] unsigned char** pointers() { return pointers_.data(); }

    /// Sets every sample of one component from a plane's video-range samples: 16 and `kSpan` more levels. They are the
    /// first at `in` and then every `kStep`th; beyond its ends the last row and column are repeated.
    template <std::size_t kStep, int kSpan>
    void fill(int component, const PlaneLayout& plane, const std::uint8_t* in) {
        unsigned char* out = pointers_[static_cast<std::size_t>(component)];
        const auto width = static_cast<std::size_t>(plane.width);
        const int padding = tjPlaneWidth(component, width_, sampling_) - plane.width;
        const int rows = tjPlaneHeight(component, height_, sampling_);
        for (int y = 0; y < rows; ++y) {
            const std::uint8_t* const row =
                in + plane.bytesPerRow * static_cast<std::size_t>(std::min(y, plane.height - 1));
            for (std::size_t x = 0; x < width; ++x) out[x] = fullRange<kSpan>(row[kStep * x]);
            out = std::fill_n(out + width, padding, out[width - 1]);
        }
    }

private:
    const int width_;
    const int height_;
    const int sampling_;
    std::array<std::unique_ptr<unsigned char[]>, 3> samples_;
    std::array<unsigned char*, 3> pointers_{};
};

/// The file that `encode(handle, &file, &size, percent, flags)` makes, with the target's density and EXIF properties.
template <typename Encode>
std::optional<Bytes> encoded(const JpegTarget& target, const Encode& encode) {
    std::optional<Bytes> segment;
    if (target.exif && !(segment = makeExifSegment(*target.exif))) return std::nullopt;
    const double percent = std::isnan(target.quality) ? 100.0 : std::clamp(target.quality * 100.0, 1.0, 100.0);
    const TurboHandle turbo(tjInitCompress());
    unsigned char* data = nullptr;
    unsigned long size = 0;
    const bool done =
        turbo && encode(turbo.get(), &data, &size, static_cast<int>(std::lround(percent)), TJFLAG_ACCURATEDCT) == 0;
    const std::unique_ptr<unsigned char, FreeFile> owner(data);
    constexpr std::size_t kJfifEnd = 20;  // every file begins with a JFIF segment
    if (!done || size < kJfifEnd) return std::nullopt;

    const Bytes exif = segment.value_or(Bytes());
    Bytes file;
    file.reserve(size + exif.size() + 4);
    const auto append = [&](int value) {
        file.push_back(static_cast<std::uint8_t>(value >> 8));
        file.push_back(static_cast<std::uint8_t>(value & 0xFF));
    };
    constexpr std::size_t kDensity = 13;
    file.assign(data, data + kDensity);
    const JfifProperties jfif = target.jfif.value_or(JfifProperties{});
    file.push_back(static_cast<std::uint8_t>(std::clamp(jfif.densityUnit, 0, 2)));
    append(std::clamp(jfif.xDensity, 1, 65535));
    append(std::clamp(jfif.yDensity, 1, 65535));
    append(0);  // no thumbnail
    if (!exif.empty()) {
        append(0xFFE1);
        append(static_cast<int>(exif.size() + 2));
        file.insert(file.end(), exif.begin(), exif.end());
    }
    file.insert(file.end(), data + kJfifEnd, data + size);
    return file;
}

std::optional<Bytes> encodedPlanes(Planes& planes, const JpegTarget& target) {
    return encoded(target, [&](tjhandle turbo, unsigned char** file, unsigned long* size, int percent, int flags) {
        const unsigned char* pointers[] = {planes.pointers()[0], planes.pointers()[1], planes.pointers()[2]};
        return tjCompressFromYUVPlanes(turbo, pointers, planes.width(), nullptr, planes.height(), planes.sampling(),
                                       file, size, percent, flags);
    });
}

/// Runs `decode(handle, flags)` and returns what is wrong with the file; nothing if it is sound. What would leave
/// samples grey counts as an error: only bytes between the last scan and the end of the file lose nothing.
template <typename Decode>
std::optional<std::string> problemDecoding(const Decode& decode) {
    const TurboHandle turbo(tjInitDecompress());
    if (!turbo) return "not enough memory";
    if (decode(turbo.get(), TJFLAG_LIMITSCANS | TJFLAG_STOPONWARNING) == 0) return std::nullopt;
    const std::string reason = tjGetErrorStr2(turbo.get());
    const auto saysThat = [&](std::string_view words) { return reason.find(words) != std::string::npos; };
    // A file's first warning, met at the end marker, is its only one.
    if (saysThat("extraneous bytes before marker 0xd9") &&
        (decode(turbo.get(), TJFLAG_LIMITSCANS) == 0 || tjGetErrorCode(turbo.get()) == TJERR_WARNING))
        return std::nullopt;
    return saysThat("remature end") ? "cut short" : "not a sound JPEG: " + reason;
}

/// Why the file's picture is refused; nothing if it is not.
std::optional<std::string> problemWith(const JpegHeader& header, std::size_t fileBytes) {
    const auto width = static_cast<std::uint64_t>(header.width);
    const auto height = static_cast<std::uint64_t>(header.height);
    if (auto problem = sizeProblem(width, height)) return problem;
    if (header.isArithmetic) return "arithmetic-coded JPEG is not supported";  // its missing end is not noticed
    return lengthProblem(fileBytes, width * height / 64 / 8, width, height);   // each block takes a bit at least
}

/// CMYK (inverted, as all who write an Adobe marker have it) to BGRA, in place.
void bgraFromCmyk(PixelBuffer& picture, bool inverted) {
    for (int y = 0; y < picture.height(); ++y) {
        std::uint8_t* p = picture.data() + picture.bytesPerRow() * static_cast<std::size_t>(y);
        for (int x = 0; x < picture.width(); ++x, p += 4) {
            const auto light = [&](std::uint8_t ink) { return inverted ? ink : 255 - ink; };
            const auto mixed = [&](std::uint8_t ink) {
                return static_cast<std::uint8_t>((light(ink) * light(p[3]) + 127) / 255);
            };
            const std::array<std::uint8_t, 4> bgra{mixed(p[2]), mixed(p[1]), mixed(p[0]), 255};
            std::ranges::copy(bgra, p);
        }
    }
}

/// The picture as it is stored.
Expected<std::shared_ptr<PixelBuffer>> decodedPixels(std::span<const std::uint8_t> file, const JpegHeader& header) {
    if (auto problem = problemWith(header, file.size())) return Error{std::move(*problem)};
    auto picture = PixelBuffer::create(header.width, header.height, kPixelFormat32BGRA);
    if (!picture) return Error{"not enough memory for its pixels"};
    const bool cmyk = header.components == 4;
    const auto problem = problemDecoding([&](tjhandle turbo, int flags) {
        return tjDecompress2(turbo, file.data(), file.size(), picture->data(), header.width,
                             static_cast<int>(picture->bytesPerRow()), header.height, cmyk ? TJPF_CMYK : TJPF_BGRA,
                             flags);
    });
    if (problem) return Error{*problem};
    if (cmyk) bgraFromCmyk(*picture, header.hasAdobeMarker);
    return picture;
}

}  // namespace

std::optional<JpegHeader> readJpegHeader(std::span<const std::uint8_t> file) {
    constexpr int kEndOfImage = 0xD9;
    constexpr int kStartOfScan = 0xDA;
    if (!startsWith(file, "\xFF\xD8")) return std::nullopt;
    JpegHeader header;
    for (std::size_t at = 2;;) {
        while (at < file.size() && file[at] != 0xFF) ++at;  // what stands between segments is passed over
        while (at < file.size() && file[at] == 0xFF) ++at;
        if (at + 3 > file.size()) return std::nullopt;
        const int marker = file[at++];
        if (marker <= 0x01 || (marker >= 0xD0 && marker <= 0xD7)) continue;  // has no content
        if (marker == kEndOfImage) return std::nullopt;  // the decoder sees nothing behind it, and sets no pixels
        const auto length = static_cast<std::size_t>(bigEndianAt(file, at));
        if (length < 2 || at + length > file.size()) return std::nullopt;
        if (marker == kStartOfScan) return header;
        readSegment(marker, file.subspan(at + 2, length - 2), header);
        at += length;
    }
}

std::optional<Bytes> encodeJpegPixels(const PixelBuffer& picture, const JpegTarget& target) {
    if (!picture.isReadable()) return std::nullopt;
    if (picture.format() == kPixelFormat420v) {
        Planes planes(picture.width(), picture.height(), TJSAMP_420);
        const auto& [luma, chroma] = picture.layout().planes;
        planes.fill<1, kLumaSpan>(0, luma, picture.data(0));
        planes.fill<2, kChromaSpan>(1, chroma, picture.data(1));
        planes.fill<2, kChromaSpan>(2, chroma, picture.data(1) + 1);
        return encodedPlanes(planes, target);
    }
    return encoded(target, [&](tjhandle turbo, unsigned char** file, unsigned long* size, int percent, int flags) {
        return tjCompress2(turbo, picture.data(), picture.width(), static_cast<int>(picture.bytesPerRow()),
                           picture.height(), picture.format() == kPixelFormat32ARGB ? TJPF_XRGB : TJPF_BGRX, file, size,
                           TJSAMP_420, percent, flags);
    });
}

std::optional<Bytes> reencodeJpeg(std::span<const std::uint8_t> file, const JpegTarget& target) {
    const auto header = readJpegHeader(file);
    const TurboHandle turbo(tjInitDecompress());
    if (!header || !turbo || problemWith(*header, file.size())) return std::nullopt;
    int width = 0, height = 0, sampling = -1, colours = -1;
    tjDecompressHeader3(turbo.get(), file.data(), file.size(), &width, &height, &sampling, &colours);
    if (sampling < 0 || (colours != TJCS_YCbCr && colours != TJCS_GRAY)) {  // samples that cannot be kept as they are
        const auto pixels = decodedPixels(file, *header);
        return pixels ? encodeJpegPixels(*pixels.value(), target) : std::nullopt;
    }
    Planes planes(header->width, header->height, sampling);
    const auto problem = problemDecoding([&](tjhandle decoder, int flags) {
        return tjDecompressToYUVPlanes(decoder, file.data(), file.size(), planes.pointers(), planes.width(), nullptr,
                                       planes.height(), flags);
    });
    return problem ? std::nullopt : encodedPlanes(planes, target);
}

Expected<std::shared_ptr<PixelBuffer>> decodeJpeg(std::span<const std::uint8_t> file) {
    const auto header = readJpegHeader(file);
    if (!header) return Error{"not a sound JPEG: it ends before its picture"};
    auto picture = decodedPixels(file, *header);
    const int orientation = header->exif.value_or(ExifProperties{}).orientation.value_or(1);
    if (!picture || orientation == 1) return picture;
    auto upright = turnedUpright(*picture.value(), orientation);
    if (!upright) return Error{"not enough memory to turn the picture"};
    return upright;
}

}  // namespace selvio
