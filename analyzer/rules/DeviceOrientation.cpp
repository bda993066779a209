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

}  // namespace selvio::rules
