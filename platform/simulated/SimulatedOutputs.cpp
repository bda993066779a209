#include "platform/simulated/SimulatedOutputs.h"

#include <SelvioFacialCapture/base/Log.h>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace selvio {
namespace {

constexpr int kMostWaitingFrames = 8;     // when late frames are kept
constexpr int kMostWaitingNotices = 60;   // behind a delegate that never returns
constexpr int kMostWaitingBlocks = 64;    // of sound
constexpr double kToneFrequency = 440.0;  // hertz
constexpr double kToneAmplitude = 8000.0;
constexpr Rect kBarcodeBounds{0.2, 0.7, 0.6, 0.15};

}  // namespace

void SimulatedOutput::setConnected(bool connected) {
    const std::lock_guard lock(mutex_);
    if (!connected) {
        connection_.reset();
    } else if (connection_ == nullptr) {
        connection_ =
            std::make_shared<SimulatedConnection>(source_ == MediaType::Video, VideoOrientation::LandscapeRight);
    }
}

std::shared_ptr<CaptureConnection> SimulatedOutput::connection() const {
    const std::lock_guard lock(mutex_);
    return connection_;
}

std::vector<std::shared_ptr<CaptureConnection>> SimulatedOutput::connectionList() const {
    auto only = connection();
    return only == nullptr ? std::vector<std::shared_ptr<CaptureConnection>>{} : std::vector{std::move(only)};
}

void SimulatedVideoDataOutput::setPixelFormat(PixelFormat format) {
    const PixelFormat wanted = format == 0 ? kPixelFormat32BGRA : format;
    if (wanted == kPixelFormat32BGRA || wanted == kPixelFormat420v) {
        format_ = wanted;
    } else {
        log("The simulated camera delivers BGRA or 420v, no other pixel format; the format stays as it was");
    }
}

void SimulatedVideoDataOutput::setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                                       std::shared_ptr<Queue> queue) {
    deliveries().set(std::move(delegate), std::move(queue));
    std::shared_ptr<SampleBuffer> forgotten;
    const std::lock_guard lock(mutex_);
    waiting_.swap(forgotten);
}

void SimulatedVideoDataOutput::setSensorSize(std::int32_t width, std::int32_t height) {
    sensorSize_ = (static_cast<std::uint64_t>(width) << 32) | static_cast<std::uint64_t>(height);
}

std::pair<int, int> SimulatedVideoDataOutput::frameSize() const {
    const std::uint64_t packed = sensorSize_;
    const auto width = static_cast<int>(packed >> 32), height = static_cast<int>(packed & 0xffffffffu);
    const auto way = connection();
    const VideoOrientation orientation = way == nullptr ? VideoOrientation::NotSet : way->videoOrientation();
    const bool portrait =
        orientation == VideoOrientation::Portrait || orientation == VideoOrientation::PortraitUpsideDown;
    return portrait ? std::pair{height, width} : std::pair{width, height};
}

VideoSettings SimulatedVideoDataOutput::recommendedVideoSettings(const std::string&) const {
    const auto [width, height] = frameSize();
    const std::int64_t bitRate = static_cast<std::int64_t>(width) * height * 8;
    return {.codec = control_->options.videoCodec,
            .width = width,
            .height = height,
            .compressionProperties = {{kVideoAverageBitRateKey, bitRate}}};
}

void SimulatedVideoDataOutput::deliverDropNotice(const SampleTiming& timing) {
    if (deliveries().pending() >= kMostWaitingNotices) return;
    deliveries().submit([self = weak_from_this(), sample = SampleBuffer::makeVideo(nullptr, timing),
                         way = connection()](CaptureOutputDelegate& delegate) {
        if (const auto output = self.lock()) delegate.captureOutputDidDropSampleBuffer(*output, sample, way);
    });
}

void SimulatedVideoDataOutput::deliver(std::chrono::nanoseconds scriptTime, const SampleTiming& timing, bool drop) {
    const auto way = connection();
    if (way == nullptr || !deliveries().isSet()) return;
    if (drop || (!discardsLate_ && deliveries().pending() >= kMostWaitingFrames)) {
        deliverDropNotice(timing);
        return;
    }
    const auto [width, height] = frameSize();
    const auto layout = PixelBufferLayout::make(width, height, format_);
    auto buffer = layout ? control_->pool->acquire(*layout) : nullptr;
    if (buffer == nullptr || !control_->scene->frames().render(scriptTime, *buffer)) {
        deliverDropNotice(timing);
        return;
    }
    auto sample = SampleBuffer::makeVideo(std::move(buffer), timing);
    if (!discardsLate_) {
        deliveries().submit(
            [self = weak_from_this(), sample = std::move(sample), way](CaptureOutputDelegate& delegate) {
                if (const auto output = self.lock()) delegate.captureOutputDidOutputSampleBuffer(*output, sample, way);
            });
        return;
    }
    {
        const std::lock_guard lock(mutex_);
        waiting_.swap(sample);
    }
    if (sample) return deliverDropNotice(sample->timing());
    deliveries().submit([self = weak_from_this()](CaptureOutputDelegate& delegate) {
        if (const auto output = self.lock()) output->handOn(delegate);
    });
}

void SimulatedVideoDataOutput::handOn(CaptureOutputDelegate& delegate) {
    std::shared_ptr<SampleBuffer> sample;
    {
        const std::lock_guard lock(mutex_);
        sample.swap(waiting_);
    }
    if (sample) delegate.captureOutputDidOutputSampleBuffer(*this, sample, connection());
}

void SimulatedAudioDataOutput::setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                                       std::shared_ptr<Queue> queue) {
    deliveries().set(std::move(delegate), std::move(queue));
}

void SimulatedAudioDataOutput::deliver(std::int64_t firstSample, const SampleTiming& timing) {
    const auto way = connection();
    if (way == nullptr || !deliveries().isSet() || deliveries().pending() >= kMostWaitingBlocks) return;
    AudioData audio{.sampleRate = kSampleRate, .channels = 1, .samples = std::vector<std::int16_t>(kBlockSamples)};
    for (std::size_t i = 0; i < audio.samples.size(); ++i) {
        // the tone has a whole number of periods a second
        const auto inSecond = static_cast<double>((firstSample + static_cast<std::int64_t>(i)) % kSampleRate);
        audio.samples[i] = static_cast<std::int16_t>(
            std::lround(kToneAmplitude * std::sin(2 * std::numbers::pi * kToneFrequency * inSecond / kSampleRate)));
    }
    deliveries().submit([self = weak_from_this(), sample = SampleBuffer::makeAudio(std::move(audio), timing),
                         way](CaptureOutputDelegate& delegate) {
        if (const auto output = self.lock()) delegate.captureOutputDidOutputSampleBuffer(*output, sample, way);
    });
}

void SimulatedMetadataOutput::setMetadataObjectsDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                                         std::shared_ptr<Queue> queue) {
    deliveries().set(std::move(delegate), std::move(queue));
}

void SimulatedMetadataOutput::setMetadataObjectTypes(std::vector<std::string> types) {
    const std::lock_guard lock(mutex_);
    types_ = std::move(types);
}

void SimulatedMetadataOutput::deliver(const std::string& barcode) {
    {
        const std::lock_guard lock(mutex_);
        if (std::find(types_.begin(), types_.end(), kMetadataObjectTypePDF417Code) == types_.end()) return;
    }
    const auto way = connection();
    if (way == nullptr || deliveries().pending() > 0) return;
    std::vector<MetadataObject> objects{
        {.type = kMetadataObjectTypePDF417Code, .stringValue = barcode, .bounds = kBarcodeBounds}};
    deliveries().submit([self = weak_from_this(), objects = std::move(objects), way](CaptureOutputDelegate& delegate) {
        if (const auto output = self.lock()) delegate.captureOutputDidOutputMetadataObjects(*output, objects, way);
    });
}

}  // namespace selvio
