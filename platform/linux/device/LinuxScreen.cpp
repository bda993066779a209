#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/linux/Device.h>

#include <cmath>

namespace selvio {

LinuxScreen::LinuxScreen(Size bounds) {
    setBounds(bounds);
}

Size LinuxScreen::bounds() const {
    const std::lock_guard lock(mutex_);
    return bounds_;
}

void LinuxScreen::setBounds(Size bounds) {
    if (!std::isfinite(bounds.width) || !std::isfinite(bounds.height) || bounds.width <= 0 || bounds.height <= 0) {
        log("The screen's size must be positive: ignored");
        return;
    }
    const std::lock_guard lock(mutex_);
    bounds_ = bounds;
}

InterfaceOrientation LinuxScreen::statusBarOrientation() const {
    return statusBarOrientation_.load();
}

void LinuxScreen::setStatusBarOrientation(InterfaceOrientation orientation) {
    statusBarOrientation_.store(orientation);
}

}  // namespace selvio
