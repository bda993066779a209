// Whole-picture conversions between the pixel formats.
#pragma once

#include <SelvioFacialCapture/imaging/PixelBuffer.h>

#include "imaging/OrientedCopy.h"

#include <memory>

namespace selvio {

/// Whether the buffer can be read as its layout says: a size, a known format, rows long enough, memory behind every
/// plane.
[[nodiscard]] bool isReadable(const PixelBuffer* buffer);

/// A new 32-bit buffer (BGRA or ARGB) with the same picture. 420v becomes opaque RGB by BT.601 from video range, its
/// colour samples taken as they are for each 2 x 2 pixels. Null for an unreadable source, another target format or lack
/// of memory.
[[nodiscard]] std::shared_ptr<PixelBuffer> convertedTo32(const PixelBuffer& source, PixelFormat target);

/// A new buffer of the same format with the picture turned; 420v is turned plane by plane, so with an odd side its
/// colour may move by one pixel. Null for an unreadable source or lack of memory.
[[nodiscard]] std::shared_ptr<PixelBuffer> turned(const PixelBuffer& source, Turn turn);

/// Copies all bytes of the source, padding included, into a buffer of the same layout: as one block where both are one
/// block.
void copyPixels(const PixelBuffer& source, PixelBuffer& target);

}  // namespace selvio
