// How a device is held, as EXIF orientation (1 to 8).
#pragma once

#include <SelvioFacialCapture/platform/Device.h>

#include <cstdint>

namespace selvio::rules {

/// The front camera's mirrored image: 7 (right mirrored) upside down, 4 (down mirrored) landscape left, 2 (up mirrored)
/// landscape right, else 5 (left mirrored).
[[nodiscard]] std::uint32_t exifOrientationFor(DeviceOrientation orientation);

}  // namespace selvio::rules
