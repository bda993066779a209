#include "camera/CameraState.h"

namespace selvio {

void CameraState::setResolutionOnce(Size size) {
    const std::lock_guard lock(mutex_);
    if (values_.resolution == Size{}) values_.resolution = size;
}

std::shared_ptr<SelvioFacialCaptureCameraDelegate> CameraState::delegate() const {
    return get(&CameraValues::delegate).lock();
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

}  // namespace selvio
