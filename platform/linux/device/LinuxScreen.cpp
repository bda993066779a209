#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/linux/Device.h>

#include <cmath>

namespace selvio {

LinuxScreen::LinuxScreen(Size bounds) {
    setBounds(bounds);
}

void LinuxScreen::setBounds(Size bounds) {
    if (!std::isfinite(bounds.width) || !std::isfinite(bounds.height) || bounds.width <= 0 || bounds.height <= 0)
        return log("The screen's size must be positive: ignored");
    mutex_.set(bounds_, bounds);
}

}  // namespace selvio
