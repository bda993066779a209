// Picture files of every kind, made for the tests, and a directory to keep them in.
#pragma once

#include <SelvioFacialCapture/imaging/PixelBuffer.h>
#include <SelvioFacialCapture/platform/ImageCodec.h>

#include <filesystem>
#include <string>

namespace selvio::test {

/// A directory of its own, removed with all that is in it.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    /// Writes a file and tells its path.
    [[nodiscard]] std::string write(const std::string& name, const Bytes& bytes) const;

private:
    std::filesystem::path path_;
};

/// Blue, green and red at a place.
using Colour = std::array<int, 3>;
[[nodiscard]] Colour colourAt(const PixelBuffer& bgra, int x, int y);

/// Four flat quarters: red, green, blue and white from the top left in reading order.
[[nodiscard]] std::shared_ptr<PixelBuffer> quarters(int width, int height);
inline constexpr Colour kRed{0, 0, 255}, kGreen{0, 255, 0}, kBlue{255, 0, 0}, kWhite{255, 255, 255};

enum class JpegKind { Baseline, Progressive, Grey, Cmyk, Arithmetic };
/// `quarters` as a JPEG file without EXIF.
[[nodiscard]] Bytes jpegFile(JpegKind kind, int width, int height);
/// The same file claiming another size.
[[nodiscard]] Bytes claimingJpegSize(Bytes file, int width, int height);

struct PngKind {
    int colourType = 2;  ///< as in the file
    int bitDepth = 8;
    bool interlaced = false;
    int orientation = 0;  ///< an eXIf chunk, unless 0
};
/// `quarters` as a PNG file; those with alpha are half transparent in the lower half.
[[nodiscard]] Bytes pngFile(const PngKind& kind, int width, int height);
[[nodiscard]] Bytes claimingPngSize(Bytes file, std::uint32_t width, std::uint32_t height);

}  // namespace selvio::test
