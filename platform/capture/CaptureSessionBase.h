// What a capture session joins: inputs and outputs.
#pragma once

#include "platform/capture/CaptureOutputs.h"

#include <SelvioFacialCapture/base/MemberMutex.h>

#include <functional>

namespace selvio {

class DeviceInput final : public CaptureDeviceInput {
public:
    /// `system`: the capture system that makes the input, whose device it is.
    DeviceInput(std::shared_ptr<CaptureDevice> device, std::shared_ptr<const void> system)
        : device_(std::move(device)), system_(std::move(system)) {}
    [[nodiscard]] const std::shared_ptr<CaptureDevice>& device() const override { return device_; }
    [[nodiscard]] const std::shared_ptr<const void>& system() const { return system_; }

private:
    const std::shared_ptr<CaptureDevice> device_;
    const std::shared_ptr<const void> system_;
};

/// At most one input of a media type and one output of a kind, all of the session's own capture system; an output
/// belongs to one session at a time. What cannot be added is logged and changes nothing. Any thread.
class CaptureSessionBase : public CaptureSession {
public:
    /// Its outputs are free again.
    ~CaptureSessionBase() override;

    [[nodiscard]] std::recursive_mutex& monitor() override { return monitor_; }
    [[nodiscard]] bool canAddInput(const CaptureDeviceInput& input) const override;
    void addInput(std::shared_ptr<CaptureDeviceInput> input) override;
    void removeInput(const std::shared_ptr<CaptureDeviceInput>& input) override;
    [[nodiscard]] bool canAddOutput(const CaptureOutput& output) const override;
    void addOutput(std::shared_ptr<CaptureOutput> output) override;
    void removeOutput(const std::shared_ptr<CaptureOutput>& output) override;
    [[nodiscard]] std::vector<std::shared_ptr<CaptureOutput>> outputs() const override;

    [[nodiscard]] bool hasVideoInput() const override { return hasCamera(); }
    [[nodiscard]] bool hasCamera() const { return parts()->camera != nullptr; }

protected:
    /// What there is of each kind.
    struct Parts {
        std::shared_ptr<CaptureDevice> camera;
        std::shared_ptr<CaptureDevice> microphone;
        std::shared_ptr<QueuedVideoOutput> video;
        std::shared_ptr<QueuedAudioOutput> audio;
        std::shared_ptr<QueuedMetadataOutput> metadata;
    };

    explicit CaptureSessionBase(std::shared_ptr<const void> system) : system_(std::move(system)) {}

    /// Never null.
    [[nodiscard]] std::shared_ptr<const Parts> parts() const { return mutex_.get(parts_); }
    /// Called after inputs or outputs have changed, on the thread that changed them, without a lock.
    virtual void partsChanged() {}

private:
    [[nodiscard]] bool canTake(const CaptureDeviceInput& input) const;
    [[nodiscard]] bool canTake(const CaptureOutput& output) const;
    void updateParts();
    /// Changes inputs or outputs with mutex_ held; false if `what` has changed nothing.
    bool change(const std::function<bool()>& what);

    const std::shared_ptr<const void> system_;
    std::recursive_mutex monitor_;
    mutable MemberMutex mutex_;
    std::vector<std::shared_ptr<CaptureDeviceInput>> inputs_;               // guarded by mutex_
    std::vector<std::shared_ptr<CaptureOutput>> outputs_;                   // guarded by mutex_
    std::shared_ptr<const Parts> parts_ = std::make_shared<const Parts>();  // guarded by mutex_
};

}  // namespace selvio
