#include "platform/simulated/SimulatedDevice.h"

#include <SelvioFacialCapture/base/Log.h>

#include <algorithm>

namespace selvio {

SimulatedDevice::SimulatedDevice(std::shared_ptr<SimulatedControl> control, MediaType mediaType,
                                 CaptureDevicePosition position)
    : control_(std::move(control)), mediaType_(mediaType), position_(position) {
    setActiveSize({1280, 720});
}

std::string SimulatedDevice::uniqueId() const {
    if (mediaType_ == MediaType::Audio) return "simulated-microphone";
    return position_ == CaptureDevicePosition::Front ? "simulated-front" : "simulated-back";
}

std::string SimulatedDevice::localizedName() const {
    if (mediaType_ == MediaType::Audio) return "Simulated Microphone";
    return position_ == CaptureDevicePosition::Front ? "Simulated Front Camera" : "Simulated Back Camera";
}

std::vector<CaptureDeviceFormat> SimulatedDevice::formats() const {
    if (mediaType_ == MediaType::Audio) return {};
    std::vector<CaptureDeviceFormat> formats;
    for (const auto& [preset, size] : kPresetSizes) {
        for (const PixelFormat format : {kPixelFormat420v, kPixelFormat32BGRA})
            formats.push_back({{format, size.width, size.height}, control_->options.frameRate});
    }
    return formats;
}

std::optional<Error> SimulatedDevice::lockForConfiguration() {
    const std::lock_guard lock(mutex_);
    ++state_.locks;
    return std::nullopt;
}

void SimulatedDevice::unlockForConfiguration() {
    const std::lock_guard lock(mutex_);
    state_.locks = std::max(0, state_.locks - 1);
}

void SimulatedDevice::setActiveFormat(const CaptureDeviceFormat& format) {
    const auto known = formats();
    if (std::find(known.begin(), known.end(), format) == known.end())
        return log(localizedName() + " does not have the format that was to be set");
    mutex_.set(active_, format);
}

void SimulatedDevice::setActiveSize(FrameSize size) {
    if (mediaType_ == MediaType::Audio) return;
    const std::lock_guard lock(mutex_);
    const PixelFormat format = active_ ? active_->formatDescription.mediaSubType : kPixelFormat420v;
    active_ = {{format, size.width, size.height}, control_->options.frameRate};
}

bool SimulatedDevice::isFocusModeSupported(FocusMode mode) const {
    return mediaType_ == MediaType::Video && mode >= FocusMode::Locked && mode <= FocusMode::ContinuousAutoFocus;
}

void SimulatedDevice::setFocusMode(FocusMode mode) {
    if (isFocusModeSupported(mode)) mutex_.set(state_.focusMode, mode);
}

void SimulatedDevice::setTorchMode(TorchMode mode) {
    if (hasTorch()) mutex_.set(state_.torchMode, mode);
}

}  // namespace selvio
