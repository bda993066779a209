// The session of the simulated devices: what is joined to what, and the thread that paces the frames.
#pragma once

#include "platform/capture/CaptureSessionBase.h"
#include "platform/simulated/SimulatedDevice.h"

namespace selvio {

class SimulatedVideoDataOutput final : public QueuedVideoOutput {
public:
    explicit SimulatedVideoDataOutput(std::shared_ptr<SimulatedControl> control)
        : QueuedVideoOutput(control, {kPixelFormat32BGRA, kPixelFormat420v}), control_(std::move(control)) {}
    [[nodiscard]] VideoSettings recommendedVideoSettings(const std::string& fileType) const override;

    /// The size of the source's frames as the sensor lies.
    void setSensorSize(FrameSize size) { mutex_.set(sensorSize_, size); }
    /// Draws and delivers the frame of a script time, or a drop notice if `drop` is set.
    void draw(std::chrono::nanoseconds scriptTime, const SampleTiming& timing, bool drop);

private:
    [[nodiscard]] FrameSize frameSize() const;

    const std::shared_ptr<SimulatedControl> control_;
    mutable MemberMutex mutex_;
    FrameSize sensorSize_{1280, 720};  // guarded by mutex_
};

/// Stopped -> startRunning -> running -> stopRunning, or the loss of the device -> stopped. Inputs and outputs may
/// change at any time and count from the next frame on.
class SimulatedSession final : public CaptureSessionBase, public std::enable_shared_from_this<SimulatedSession> {
public:
    explicit SimulatedSession(std::shared_ptr<SimulatedControl> control);
    ~SimulatedSession() override;

    void beginConfiguration() override {}
    void commitConfiguration() override {}
    bool canSetSessionPreset(const std::string& preset) const override;
    void setSessionPreset(const std::string& preset) override;
    void addInput(std::shared_ptr<CaptureDeviceInput> input) override;
    bool isRunning() const override { return mutex_.get(running_); }
    void startRunning() override;
    void stopRunning() override;
    std::chrono::nanoseconds masterClockTime() const override { return control_->scene->clockTime(); }

    /// For the preview layer; null without a camera.
    [[nodiscard]] std::shared_ptr<CaptureConnection> previewConnection() const;
    /// Delivers everything that is due at a time of the clock if the session runs. Any thread.
    void tick(std::chrono::nanoseconds clockTime);

private:
    class Run;
    void applyPreset();
    /// Why it could not start; empty when it runs. With mutex_ held.
    [[nodiscard]] std::string startLocked();

    const std::shared_ptr<SimulatedControl> control_;
    const std::shared_ptr<PlainConnection> previewConnection_ =
        std::make_shared<PlainConnection>(VideoOrientation::Portrait);

    mutable MemberMutex mutex_;
    std::shared_ptr<Run> run_;  // guarded by mutex_; the latest start's
    std::string preset_;        // guarded by mutex_; empty: none set
    bool running_ = false;      // guarded by mutex_
};

}  // namespace selvio
