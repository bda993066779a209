// JPEG files by TurboJPEG: reading headers, decoding to pixels, encoding from pixels and from other JPEG files.
// Every function may run on any thread.
#pragma once

#include <SelvioFacialCapture/platform/ImageCodec.h>

#include <span>

namespace selvio {

/// What stands before a JPEG file's first scan.
struct JpegHeader {
    int width = 0;
    int height = 0;
    int components = 0;
    bool isArithmetic = false;  ///< arithmetic-coded instead of Huffman-coded
    bool hasAdobeMarker = false;
    std::optional<JfifProperties> jfif;
    std::optional<ExifProperties> exif;
};

/// How a JPEG file is to be written.
struct JpegTarget {
    double quality = 1.0;  ///< 0...1, clamped; NaN is 1
    std::optional<JfifProperties> jfif;
    std::optional<ExifProperties> exif;
};

/// Nothing if the bytes do not begin as a JPEG file does, up to its first scan.
[[nodiscard]] std::optional<JpegHeader> readJpegHeader(std::span<const std::uint8_t> file);

/// Nothing for an unreadable picture, EXIF properties that do not fit into a segment, or lack of memory.
[[nodiscard]] std::optional<Bytes> encodeJpegPixels(const PixelBuffer& picture, const JpegTarget& target);

/// Decodes the file and encodes its picture anew. Nothing also if the file is cut short or damaged.
[[nodiscard]] std::optional<Bytes> reencodeJpeg(std::span<const std::uint8_t> file, const JpegTarget& target);

/// The whole picture, upright, as BGRA. The error gives the reason only.
[[nodiscard]] Expected<std::shared_ptr<PixelBuffer>> decodeJpeg(std::span<const std::uint8_t> file);

}  // namespace selvio
