#include "camera/CameraState.h"

#include <mutex>

namespace selvio {

void CameraState::setResolutionOnce(Size size) {
    const std::lock_guard lock(mutex_);
    if (values_.resolution == Size{}) values_.resolution = size;
}

std::shared_ptr<CaptureSession> CameraState::session() const {
    const auto layer = get(&CameraValues::videoPreviewLayer);
    return layer ? layer->session() : nullptr;
}

bool CameraState::recordVideo() const {
    const auto parameters = get(&CameraValues::parameters);
    return parameters && parameters->recordVideo();
}

bool CameraState::recordAudio() const {
    const auto parameters = get(&CameraValues::parameters);
    return parameters && parameters->recordAudio();
}

bool isOnOrEnding(const std::weak_ptr<Queue>& queue) {
    const auto held = queue.lock();
    return !held || held->isCurrent();
}

}  // namespace selvio
