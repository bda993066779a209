// The frames of a simulated camera.
#pragma once

#include "platform/capture/CaptureOutputs.h"
#include "platform/capture/FrameSize.h"
#include "platform/simulated/SimulatedControl.h"

namespace selvio {

class SimulatedVideoDataOutput final : public QueuedVideoOutput {
public:
    explicit SimulatedVideoDataOutput(std::shared_ptr<SimulatedControl> control)
        : QueuedVideoOutput(control, {kPixelFormat32BGRA, kPixelFormat420v}), control_(std::move(control)) {}
    [[nodiscard]] VideoSettings recommendedVideoSettings(const std::string& fileType) const override;

    /// The size of the source's frames as the sensor lies.
    void setSensorSize(FrameSize size) { sensorSize_ = size; }
    /// Draws and delivers the frame of a script time, or a drop notice if `drop` is set.
    void draw(std::chrono::nanoseconds scriptTime, const SampleTiming& timing, bool drop);

private:
    [[nodiscard]] FrameSize frameSize() const;

    const std::shared_ptr<SimulatedControl> control_;
    std::atomic<FrameSize> sensorSize_{FrameSize{1280, 720}};
};

}  // namespace selvio
