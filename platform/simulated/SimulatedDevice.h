// Simulated cameras and microphone.
#pragma once

#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/simulated/SimulatedCaptureSystem.h>

#include "platform/capture/FrameSize.h"

namespace selvio {

/// What the devices, sessions and outputs of one simulated capture system share.
struct SimulatedControl {
    SimulatedControl(std::shared_ptr<SimulatedScene> theScene, SimulatedCaptureOptions theOptions)
        : scene(std::move(theScene)), options(std::move(theOptions)), pool(PixelBufferPool::create()) {}

    const std::shared_ptr<SimulatedScene> scene;
    const SimulatedCaptureOptions options;
    const std::shared_ptr<PixelBufferPool> pool;

    [[nodiscard]] SimulatedFaults faults() const { return mutex_.get(faults_); }
    void setFaults(SimulatedFaults faults) { mutex_.set(faults_, faults); }

private:
    mutable MemberMutex mutex_;
    SimulatedFaults faults_;  // guarded by mutex_
};

class SimulatedDevice final : public CaptureDevice {
public:
    /// A camera has a position, the microphone none.
    SimulatedDevice(std::shared_ptr<SimulatedControl> control, MediaType mediaType, CaptureDevicePosition position);

    std::string uniqueId() const override;
    std::string localizedName() const override;
    MediaType mediaType() const override { return mediaType_; }
    CaptureDevicePosition position() const override { return position_; }
    std::vector<CaptureDeviceFormat> formats() const override;
    std::optional<CaptureDeviceFormat> activeFormat() const override { return mutex_.get(active_); }
    std::optional<Error> lockForConfiguration() override;
    void unlockForConfiguration() override;
    /// A format that the device lacks is logged and changes nothing.
    void setActiveFormat(const CaptureDeviceFormat& format) override;
    bool isFocusPointOfInterestSupported() const override { return mediaType_ == MediaType::Video; }
    void setFocusPointOfInterest(Point point) override { mutex_.set(state_.focusPointOfInterest, point); }
    bool isFocusModeSupported(FocusMode mode) const override;
    void setFocusMode(FocusMode mode) override;
    bool hasTorch() const override { return position_ == CaptureDevicePosition::Back; }
    void setTorchMode(TorchMode mode) override;

    [[nodiscard]] SimulatedDeviceState state() const { return mutex_.get(state_); }
    /// Makes a format of this size active, in the pixel format that is active now.
    void setActiveSize(FrameSize size);
    [[nodiscard]] bool belongsTo(const SimulatedControl* control) const { return control_.get() == control; }

private:
    const std::shared_ptr<SimulatedControl> control_;
    const MediaType mediaType_;
    const CaptureDevicePosition position_;
    mutable MemberMutex mutex_;
    std::optional<CaptureDeviceFormat> active_;  // guarded by mutex_
    SimulatedDeviceState state_;                 // guarded by mutex_
};

}  // namespace selvio
