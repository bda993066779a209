#include "platform/simulated/SimulatedVideoDataOutput.h"

namespace selvio {

FrameSize SimulatedVideoDataOutput::frameSize() const {
    const FrameSize sensor = sensorSize_;
    return isPortrait(connection()->videoOrientation()) ? FrameSize{sensor.height, sensor.width} : sensor;
}

VideoSettings SimulatedVideoDataOutput::recommendedVideoSettings(const std::string&) const {
    const auto [width, height] = frameSize();
    const std::int64_t bitRate = static_cast<std::int64_t>(width) * height * 8;
    return {.codec = control_->options.videoCodec,
            .width = width,
            .height = height,
            .compressionProperties = {{kVideoAverageBitRateKey, bitRate}}};
}

void SimulatedVideoDataOutput::draw(std::chrono::nanoseconds scriptTime, const SampleTiming& timing, bool drop) {
    if (!isDelivering()) return;
    const auto [width, height] = frameSize();
    const auto layout = PixelBufferLayout::make(width, height, pixelFormat());
    auto buffer = layout && !drop ? control_->pool->acquire(*layout) : nullptr;
    if (buffer && control_->scene->frames().render(scriptTime, *buffer)) {
        deliver(SampleBuffer::makeVideo(std::move(buffer), timing));
    } else {
        deliverDropNotice(timing);
    }
}

}  // namespace selvio
