#include "platform/simulated/SimulatedSession.h"

#include <SelvioFacialCapture/base/Log.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <numbers>
#include <system_error>
#include <thread>

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
    if (preset == kCaptureSessionPresetHigh) return kPresetSizes.back().size;
    const auto found = std::ranges::find(kPresetSizes, preset, &PresetSize::preset);
    return found == kPresetSizes.end() ? std::nullopt : std::optional(found->size);
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

// The run whose thread the calling thread is.
thread_local const void* currentRun = nullptr;

}  // namespace

// One stretch from start to stop. Held by its thread as well, so that the session may go first.
class SimulatedSession::Run {
public:
    explicit Run(nanoseconds clockTime) : start(clockTime) {}
    ~Run() {
        if (thread_.joinable()) thread_.detach();  // only on the thread itself, at its end
    }

    const nanoseconds start;  // the clock's time at the start

    // Guards frames and samples; recursive, because a queue may run a block, and that block stop the session, inside of
    // a tick.
    std::recursive_mutex ticking;
    std::int64_t frames = 0;
    std::int64_t samples = 0;

    void startThread(std::weak_ptr<SimulatedSession> session, std::shared_ptr<Run> self,
                     std::shared_ptr<const Clock> clock, double rate) {
        thread_ = std::thread([session = std::move(session), self = std::move(self), clock = std::move(clock), rate] {
            self->pace(session, *clock, rate);
        });
        threaded_ = true;
    }
    void end() {
        {
            const std::lock_guard lock(mutex_);
            ending_ = true;
        }
        changed_.notify_all();
    }
    [[nodiscard]] bool isEnding() const {
        const std::lock_guard lock(mutex_);
        return ending_;
    }
    // After `end`: returns when nothing more will be submitted, unless called from inside of this run.
    void wait() {
        if (currentRun == this) return;
        if (threaded_) std::call_once(joined_, [this] { thread_.join(); });
        const std::lock_guard lastTick(ticking);
    }

private:
    void pace(const std::weak_ptr<SimulatedSession>& weakSession, const Clock& clock, double rate) {
        currentRun = this;
        const auto timeOf = [&](std::int64_t frame) {
            return start + nanoseconds(std::llround(static_cast<double>(frame) * 1e9 / rate));
        };
        for (std::int64_t frame = 0;;) {
            {
                std::unique_lock lock(mutex_);
                for (nanoseconds left{}; !ending_ && (left = timeOf(frame) - clock.monotonicTime()) > nanoseconds(0);) {
                    changed_.wait_for(lock, std::min(left, kLongestWait));
                }
                if (ending_) return;
            }
            {
                const auto session = weakSession.lock();
                if (session == nullptr) return;
                session->tick(timeOf(frame));
            }
            // a camera that cannot keep up leaves frames out and stays on its beat
            ++frame;
            while (timeOf(frame + 1) <= clock.monotonicTime()) ++frame;
        }
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool ending_ = false;  // guarded by mutex_
    std::once_flag joined_;
    bool threaded_ = false;  // set before the run is shared
    std::thread thread_;     // the same; joined once
};

SimulatedSession::SimulatedSession(std::shared_ptr<SimulatedControl> control)
    : CaptureSessionBase(control), control_(std::move(control)) {}

SimulatedSession::~SimulatedSession() {
    if (run_ == nullptr) return;
    run_->end();
    run_->wait();
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
        if (previous != nullptr) previous->wait();

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
            run->startThread(weak_from_this(), run, control_->scene->clock(), control_->options.frameRate);
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
    if (run == nullptr) return;
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
    if (faults.deviceLost && camera != nullptr) {
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
