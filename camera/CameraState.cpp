#include "camera/CameraState.h"

#include <algorithm>

namespace selvio {

void DelegateSlot::set(std::weak_ptr<SelvioFacialCaptureCameraDelegate> delegate) {
    const std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
}

std::shared_ptr<SelvioFacialCaptureCameraDelegate> DelegateSlot::get() const {
    const std::lock_guard lock(mutex_);
    return delegate_.lock();
}

std::shared_ptr<SelvioFacialCaptureCameraDelegate> DelegateSlot::beginCall() {
    const std::lock_guard lock(mutex_);
    auto delegate = closed_ ? nullptr : delegate_.lock();
    if (delegate) calling_.push_back(std::this_thread::get_id());
    return delegate;
}

void DelegateSlot::endCall() {
    {
        const std::lock_guard lock(mutex_);
        calling_.erase(std::find(calling_.begin(), calling_.end(), std::this_thread::get_id()));
    }
    callEnded_.notify_all();
}

void DelegateSlot::close() {
    std::unique_lock lock(mutex_);
    closed_ = true;
    if (std::find(calling_.begin(), calling_.end(), std::this_thread::get_id()) != calling_.end()) return;
    callEnded_.wait(lock, [this] { return calling_.empty(); });
}

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
