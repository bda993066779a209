// Whole-picture conversions between the pixel formats.
#pragma once

#include <SelvioFacialCapture/imaging/PixelBuffer.h>

#include "imaging/OrientedCopy.h"

#include <memory>

namespace selvio {

/// A new 32-bit buffer (BGRA or ARGB) with the same picture. 420v becomes opaque RGB by BT.601 from video range, its
/// colour samples taken as they are for each 2 x 2 pixels. Null for an unreadable source, another target format or lack
/// of memory.
[[nodiscard]] std::shared_ptr<PixelBuffer> convertedTo32(const PixelBuffer& source, PixelFormat target);

/// A new buffer of the same format with the picture turned; 420v is turned plane by plane, so with an odd side its
/// colour may move by one pixel. Null for an unreadable source or lack of memory.
[[nodiscard]] std::shared_ptr<PixelBuffer> turned(const PixelBuffer& source, Turn turn);

/// The layout for a copy of a readable buffer: the source's own, so that a plane is copied as one block; a compact one
/// for a part of a larger picture, whose rows would take the larger one's memory along.
[[nodiscard]] PixelBufferLayout layoutOfCopy(const PixelBuffer& source);

/// Copies the samples into a buffer of the same size and format: a plane as one block, padding
/// included, where both have the same layout. Reads nothing behind the last sample of a plane.
void copyPixels(const PixelBuffer& source, PixelBuffer& target);

}  // namespace selvio
