// Picture files of every kind, made for the tests.
#pragma once

#include <SelvioFacialCapture/imaging/PixelBuffer.h>
#include <SelvioFacialCapture/platform/ImageCodec.h>

#include "support/Pixels.h"
#include "support/TemporaryDirectory.h"

namespace selvio::test {

/// Blue, green and red at a place.
using Colour = std::array<int, 3>;
[[nodiscard]] Colour colourAt(const PixelBuffer& bgra, int x, int y);

/// Four flat quarters: red, green, blue and white from the top left in reading order.
[[nodiscard]] std::shared_ptr<PixelBuffer> quarters(int width, int height);
inline constexpr Colour kRed{0, 0, 255}, kGreen{0, 255, 0}, kBlue{255, 0, 0}, kWhite{255, 255, 255};

/// The colours of `quarters`, in reading order, as an EXIF orientation has them shown.
[[nodiscard]] std::array<Colour, 4> quartersTurned(int orientation);
/// Expects these colours in the middle of the four quarters, in reading order.
void expectQuarters(const PixelBuffer& bgra, const std::array<Colour, 4>& expected);

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
