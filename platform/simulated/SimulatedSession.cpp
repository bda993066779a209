#include "platform/simulated/SimulatedSession.h"

#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/base/SerialQueue.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <system_error>

namespace selvio {
namespace {

using std::chrono::nanoseconds;
using namespace std::chrono_literals;

constexpr nanoseconds kLongestWait = 50ms;  // after which a clock that does not run with the system's is read again
constexpr nanoseconds kLongestSilence = 1s;
constexpr std::int64_t kSampleRate = 48000;
constexpr std::int64_t kBlockSamples = 1024;
constexpr double kToneFrequency = 440.0;  // hertz
constexpr double kToneAmplitude = 8000.0;
constexpr Rect kBarcodeBounds{0.2, 0.7, 0.6, 0.15};

std::optional<FrameSize> sizeOf(const std::string& preset) {
    return preset == kCaptureSessionPresetHigh ? kPresetSizes.back().size : sizeOfPreset(preset);
}

nanoseconds timeOfSamples(std::int64_t samples) {
    return nanoseconds(samples / kSampleRate * 1'000'000'000 + samples % kSampleRate * 1'000'000'000 / kSampleRate);
}

// One block of the tone, that many samples after the session's start.
AudioData toneAt(std::int64_t firstSample) {
    AudioData audio{.sampleRate = kSampleRate, .channels = 1, .samples = std::vector<std::int16_t>(kBlockSamples)};
    for (auto& sample : audio.samples) {
        // the tone has a whole number of periods a second
        const double seconds = static_cast<double>(firstSample++ % kSampleRate) / kSampleRate;
        sample = static_cast<std::int16_t>(
            std::lround(kToneAmplitude * std::sin(2 * std::numbers::pi * kToneFrequency * seconds)));
    }
    return audio;
}

}  // namespace

FrameSize SimulatedVideoDataOutput::frameSize() const {
    const FrameSize sensor = mutex_.get(sensorSize_);
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

// One stretch from start to stop. Queued blocks hold it weakly.
class SimulatedSession::Run : public std::enable_shared_from_this<Run> {
public:
    explicit Run(nanoseconds clockTime) : start(clockTime) {}

    const nanoseconds start;  // the clock's time at the start

    // Guards frames and samples; recursive, because a queue may run a block, and that block stop the session, inside of
    // a tick.
    std::recursive_mutex ticking;
    std::int64_t frames = 0;
    std::int64_t samples = 0;

    // Before the run is shared: delivers by itself, from a thread of its own.
    void pace(std::weak_ptr<SimulatedSession> session, std::shared_ptr<const Clock> clock, double rate) {
        session_ = std::move(session);
        clock_ = std::move(clock);
        rate_ = rate;
        queue_ = std::make_unique<SerialQueue>("simulated camera");
        deliverAfter(nanoseconds(0), 0);
    }
    void end() { ending_ = true; }
    [[nodiscard]] bool isEnding() const { return ending_; }
    // After `end`: returns when nothing more will be submitted, unless called from inside of this run.
    void wait() {
        if (queue_ && queue_->isCurrent()) return;
        if (queue_) queue_->drain();
        const std::lock_guard lastTick(ticking);
    }

private:
    [[nodiscard]] nanoseconds timeOf(std::int64_t frame) const {
        return start + nanoseconds(std::llround(static_cast<double>(frame) * 1e9 / rate_));
    }
    void deliverAfter(nanoseconds delay, std::int64_t frame) {
        queue_->asyncAfter(delay, [weak = weak_from_this(), frame] {
            if (const auto self = weak.lock(); self && !self->ending_) self->deliver(frame);
        });
    }
    void deliver(std::int64_t frame) {
        const nanoseconds early = timeOf(frame) - clock_->monotonicTime();
        if (early > nanoseconds(0)) return deliverAfter(std::min(early, kLongestWait), frame);
        const auto session = session_.lock();
        if (!session) return;
        session->tick(timeOf(frame));
        // a camera that cannot keep up leaves frames out and stays on its beat
        ++frame;
        while (timeOf(frame + 1) <= clock_->monotonicTime()) ++frame;
        deliverAfter(nanoseconds(0), frame);
    }

    std::weak_ptr<SimulatedSession> session_;
    std::shared_ptr<const Clock> clock_;
    double rate_ = 0.0;
    std::atomic<bool> ending_{false};
    std::unique_ptr<SerialQueue> queue_;
};

SimulatedSession::SimulatedSession(std::shared_ptr<SimulatedControl> control)
    : CaptureSessionBase(control), control_(std::move(control)) {}

SimulatedSession::~SimulatedSession() {
    stopRunning();
}

bool SimulatedSession::canSetSessionPreset(const std::string& preset) const {
    return sizeOf(preset).has_value();
}

void SimulatedSession::setSessionPreset(const std::string& preset) {
    mutex_.set(preset_, preset);
    applyPreset();
}

void SimulatedSession::applyPreset() {
    const auto camera = std::static_pointer_cast<SimulatedDevice>(parts()->camera);
    if (const auto size = sizeOf(mutex_.get(preset_)); camera && size) camera->setActiveSize(*size);
}

void SimulatedSession::addInput(std::shared_ptr<CaptureDeviceInput> input) {
    const bool hadCamera = hasCamera();
    CaptureSessionBase::addInput(std::move(input));
    if (!hadCamera) applyPreset();
}

std::shared_ptr<CaptureConnection> SimulatedSession::previewConnection() const {
    return hasCamera() ? previewConnection_ : nullptr;
}

void SimulatedSession::startRunning() {
    for (;;) {
        std::shared_ptr<Run> previous;
        {
            const std::lock_guard lock(mutex_);
            if (running_) return;
            previous = run_;
        }
        if (previous) previous->wait();

        std::string failure;
        {
            const std::lock_guard lock(mutex_);
            if (running_) return;
            if (run_ != previous) continue;  // started and stopped by others meanwhile
            failure = startLocked();
        }
        if (!failure.empty()) log("The simulated session could not start: " + failure);
        return;
    }
}

std::string SimulatedSession::startLocked() {
    const SimulatedFaults faults = control_->faults();
    if (faults.startFails) return "it is set to fail";
    if (faults.deviceLost) return "the camera is disconnected";
    auto run = std::make_shared<Run>(control_->scene->begin());
    if (control_->options.pacing == SimulatedPacing::Timer) {
        try {
            run->pace(weak_from_this(), control_->scene->clock(), control_->options.frameRate);
        } catch (const std::system_error& error) {
            return error.what();
        }
    }
    run_ = std::move(run);
    running_ = true;
    return {};
}

void SimulatedSession::stopRunning() {
    std::shared_ptr<Run> run;
    {
        const std::lock_guard lock(mutex_);
        running_ = false;
        run = run_;
    }
    if (!run) return;
    run->end();
    run->wait();
}

void SimulatedSession::tick(nanoseconds clockTime) {
    std::shared_ptr<Run> run;
    {
        const std::lock_guard lock(mutex_);
        if (!running_) return;
        run = run_;
    }
    const std::lock_guard oneTick(run->ticking);
    if (run->isEnding()) return;
    const SimulatedFaults faults = control_->faults();
    const nanoseconds scriptTime = control_->scene->timeAt(clockTime);
    const auto parts = this->parts();
    const auto& camera = parts->camera;
    if (faults.deviceLost && camera) {
        {
            const std::lock_guard lock(mutex_);
            if (run_ == run) running_ = false;
        }
        run->end();
        log("The simulated camera was disconnected");
        return;
    }
    if (parts->video && camera && !faults.framesStall) {
        auto& video = static_cast<SimulatedVideoDataOutput&>(*parts->video);
        const auto format = camera->activeFormat()->formatDescription;
        video.setSensorSize({format.width, format.height});
        ++run->frames;
        const bool drop = faults.dropEvery > 0 && run->frames % faults.dropEvery == 0;
        const nanoseconds period(std::llround(1e9 / control_->options.frameRate));
        video.draw(scriptTime, {.presentationTime = clockTime, .duration = period}, drop);
    }
    if (parts->audio) {
        const nanoseconds elapsed = clockTime - run->start;
        while (timeOfSamples(run->samples + kBlockSamples) + kLongestSilence < elapsed) run->samples += kBlockSamples;
        for (; timeOfSamples(run->samples + kBlockSamples) <= elapsed; run->samples += kBlockSamples) {
            const SampleTiming timing{run->start + timeOfSamples(run->samples), timeOfSamples(kBlockSamples)};
            if (parts->audio->isDelivering())
                parts->audio->deliver(SampleBuffer::makeAudio(toneAt(run->samples), timing));
        }
    }
    if (parts->metadata && parts->metadata->isSearching() && !faults.framesStall) {
        if (const auto barcode = control_->scene->frames().script().stateAt(scriptTime).barcode)
            parts->metadata->deliver({{kMetadataObjectTypePDF417Code, barcode, kBarcodeBounds}});
    }
}

}  // namespace selvio
