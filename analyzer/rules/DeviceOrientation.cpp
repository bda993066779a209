#include "analyzer/rules/DeviceOrientation.h"

namespace selvio::rules {

std::uint32_t exifOrientationFor(DeviceOrientation orientation) {
    switch (orientation) {
        case DeviceOrientation::PortraitUpsideDown:
            return 7;
        case DeviceOrientation::LandscapeLeft:
            return 4;
        case DeviceOrientation::LandscapeRight:
            return 2;
        default:
            return 5;
    }
}

std::uint32_t exifOrientationFor(ImageOrientation orientation) {
    switch (orientation) {
        case ImageOrientation::Up:
            return 1;
        case ImageOrientation::Down:
            return 3;
        case ImageOrientation::Left:
            return 8;
        case ImageOrientation::Right:
            return 6;
        case ImageOrientation::UpMirrored:
            return 2;
        case ImageOrientation::DownMirrored:
            return 4;
        case ImageOrientation::LeftMirrored:
            return 5;
        case ImageOrientation::RightMirrored:
            return 7;
    }
    return 1;
}

}  // namespace selvio::rules
