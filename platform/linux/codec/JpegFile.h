// JPEG files by libjpeg-turbo: reading headers, decoding to pixels, encoding from pixels and from other JPEG files.
// Every function may run on any thread.
#pragma once

#include <SelvioFacialCapture/platform/ImageCodec.h>

#include <cstdio>
#include <span>

namespace selvio {

struct JpegHeader {
    std::optional<JfifProperties> jfif;
    std::optional<ExifProperties> exif;
};

/// How a JPEG file is to be written.
struct JpegTarget {
    double quality = 1.0;  ///< 0...1, clamped; NaN is 1
    std::optional<JfifProperties> jfif;
    Bytes exifSegment;  ///< none if empty
};

/// Nothing if the bytes do not begin as a JPEG file does, up to its first scan.
[[nodiscard]] std::optional<JpegHeader> readJpegHeader(std::span<const std::uint8_t> file);

/// Nothing for an unreadable picture or lack of memory.
[[nodiscard]] std::optional<Bytes> encodeJpegPixels(const PixelBuffer& picture, const JpegTarget& target);

/// Decodes the file and encodes its picture anew, strip by strip. Nothing if the file is cut short or damaged.
[[nodiscard]] std::optional<Bytes> reencodeJpeg(std::span<const std::uint8_t> file, const JpegTarget& target);

/// The whole picture, upright, as BGRA. `file` stands at its beginning and is `fileBytes` long. The error gives the
/// reason only.
[[nodiscard]] Expected<std::shared_ptr<PixelBuffer>> readJpegFile(std::FILE* file, std::size_t fileBytes);

}  // namespace selvio
