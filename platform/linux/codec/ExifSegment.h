// The EXIF segment of a JPEG file, from "Exif" on, without its marker and length.
#pragma once

#include <SelvioFacialCapture/platform/ImageCodec.h>

#include <span>

namespace selvio {

/// Most bytes that one JPEG segment holds beside its length.
inline constexpr std::size_t kLongestSegment = 65533;

/// The segment for the properties. Nothing for a user comment that is not ASCII, and for a segment that cannot be made
/// or would be longer than `kLongestSegment`.
[[nodiscard]] std::optional<Bytes> makeExifSegment(const ExifProperties& properties);

/// What the segment says of the two properties. Nothing if it is not an EXIF segment; a property that cannot be read is
/// absent, and so is a user comment that is not marked as ASCII.
[[nodiscard]] std::optional<ExifProperties> readExifSegment(std::span<const std::uint8_t> segment);

}  // namespace selvio
