// A picture for people: a bitmap and the way up it is to be shown.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/imaging/PixelBuffer.h>

#include <cstdint>
#include <memory>

namespace selvio {

/// How the bitmap's rows and columns are to be turned for display.
enum class ImageOrientation : std::int64_t {
    Up = 0,
    Down = 1,
    Left = 2,
    Right = 3,
    UpMirrored = 4,
    DownMirrored = 5,
    LeftMirrored = 6,
    RightMirrored = 7,
};

/// The EXIF orientation (1 to 8) of an image orientation; 1 for a value outside the enumeration.
[[nodiscard]] constexpr std::uint32_t exifOrientationFor(ImageOrientation orientation) {
    constexpr std::uint32_t kTable[] = {1, 3, 8, 6, 2, 4, 5, 7};
    const auto value = static_cast<std::int64_t>(orientation);
    return value >= 0 && value < 8 ? kTable[value] : 1;
}

/// A picture stored as `exifOrientation` says (1 to 8; any other value is 1), turned upright, in a new buffer of the
/// same format. 420v is turned plane by plane, so with an odd side its colour may move by one pixel. Null for an
/// unreadable buffer or lack of memory.
[[nodiscard]] SELVIO_EXPORT std::shared_ptr<PixelBuffer> turnedUpright(const PixelBuffer& stored, int exifOrientation);

/// A bitmap that is shared and no longer written.
using Bitmap = std::shared_ptr<const PixelBuffer>;

/// A picture. Copies share the bitmap.
struct Image {
    Bitmap bitmap;
    ImageOrientation orientation = ImageOrientation::Up;
    double scale = 1.0;  ///< pixels a point
};

}  // namespace selvio
