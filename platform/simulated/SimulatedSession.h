// The session of the simulated devices: what is joined to what, and the thread that paces the frames.
#pragma once

#include "platform/simulated/SimulatedDevice.h"
#include "platform/simulated/SimulatedOutputs.h"

namespace selvio {

/// Stopped -> startRunning -> running -> stopRunning, or the loss of the device -> stopped. Inputs and outputs may
/// change at any time and count from the next frame on.
class SimulatedSession final : public CaptureSession, public std::enable_shared_from_this<SimulatedSession> {
public:
    explicit SimulatedSession(std::shared_ptr<SimulatedControl> control);
    ~SimulatedSession() override;

    std::recursive_mutex& monitor() override { return monitor_; }
    void beginConfiguration() override {}
    void commitConfiguration() override {}
    bool canSetSessionPreset(const std::string& preset) const override;
    void setSessionPreset(const std::string& preset) override;
    bool canAddInput(const CaptureDeviceInput& input) const override;
    void addInput(std::shared_ptr<CaptureDeviceInput> input) override;
    void removeInput(const std::shared_ptr<CaptureDeviceInput>& input) override;
    bool canAddOutput(const CaptureOutput& output) const override;
    void addOutput(std::shared_ptr<CaptureOutput> output) override;
    void removeOutput(const std::shared_ptr<CaptureOutput>& output) override;
    std::vector<std::shared_ptr<CaptureOutput>> outputs() const override;
    bool isRunning() const override;
    void startRunning() override;
    void stopRunning() override;
    std::chrono::nanoseconds masterClockTime() const override;

    /// For the preview layer; null without a camera.
    [[nodiscard]] std::shared_ptr<CaptureConnection> previewConnection() const;
    /// Delivers everything that is due at a time of the clock if the session runs. Any thread.
    void tick(std::chrono::nanoseconds clockTime);

private:
    class Run;
    struct Joined {
        std::shared_ptr<SimulatedDevice> camera;
        std::shared_ptr<SimulatedVideoDataOutput> video;
        std::shared_ptr<SimulatedAudioDataOutput> audio;
        std::shared_ptr<SimulatedMetadataOutput> metadata;
    };
    [[nodiscard]] bool canAddInputLocked(const CaptureDeviceInput& input, const SimulatedFaults& faults) const;
    [[nodiscard]] bool canAddOutputLocked(const CaptureOutput& output, const SimulatedFaults& faults) const;
    [[nodiscard]] std::shared_ptr<SimulatedDevice> deviceLocked(MediaType mediaType) const;
    template <typename Output>
    [[nodiscard]] std::shared_ptr<Output> outputLocked() const;
    void connectLocked();
    [[nodiscard]] std::chrono::nanoseconds framePeriod() const;
    void applyPresetLocked();
    /// Why it could not start; empty when it runs.
    [[nodiscard]] std::string startLocked();
    [[nodiscard]] Joined joinedParts() const;

    const std::shared_ptr<SimulatedControl> control_;
    std::recursive_mutex monitor_;

    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<CaptureDeviceInput>> inputs_;  // guarded by mutex_
    std::vector<std::shared_ptr<CaptureOutput>> outputs_;      // guarded by mutex_
    std::shared_ptr<SimulatedConnection> previewConnection_;   // guarded by mutex_
    std::shared_ptr<Run> run_;                                 // guarded by mutex_; the latest start's
    std::string preset_;                                       // guarded by mutex_; empty: none set
    bool running_ = false;                                     // guarded by mutex_
};

}  // namespace selvio
