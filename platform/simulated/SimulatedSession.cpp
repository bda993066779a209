#include "platform/simulated/SimulatedSession.h"

#include <SelvioFacialCapture/base/Log.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <system_error>
#include <thread>

namespace selvio {
namespace {

using std::chrono::nanoseconds;

constexpr nanoseconds kLongestWait{
    50'000'000};  // after which a clock that does not run with the system's is read again
constexpr nanoseconds kLongestSilence{1'000'000'000};

struct PresetSize {
    std::string preset;
    std::int32_t width;
    std::int32_t height;
};

const std::vector<PresetSize>& presetSizes() {
    static const std::vector<PresetSize> sizes{{kCaptureSessionPreset640x480, 640, 480},
                                               {kCaptureSessionPreset1280x720, 1280, 720},
                                               {kCaptureSessionPreset1920x1080, 1920, 1080},
                                               {kCaptureSessionPresetHigh, 1920, 1080}};
    return sizes;
}

nanoseconds timeOfSamples(std::int64_t samples) {
    constexpr std::int64_t kRate = SimulatedAudioDataOutput::kSampleRate;
    return nanoseconds(samples / kRate * 1'000'000'000 + samples % kRate * 1'000'000'000 / kRate);
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

SimulatedSession::SimulatedSession(std::shared_ptr<SimulatedControl> control) : control_(std::move(control)) {}

SimulatedSession::~SimulatedSession() {
    if (run_ != nullptr) {
        run_->end();
        run_->wait();
    }
    for (const auto& output : outputs_) {
        auto& simulated = dynamic_cast<SimulatedOutput&>(*output);
        simulated.setConnected(false);
        simulated.giveBack();
    }
}

bool SimulatedSession::canSetSessionPreset(const std::string& preset) const {
    const auto& known = presetSizes();
    return std::any_of(known.begin(), known.end(), [&](const PresetSize& size) { return size.preset == preset; }) &&
           !control_->faults().refusedPresets.contains(preset);
}

void SimulatedSession::setSessionPreset(const std::string& preset) {
    const std::lock_guard lock(mutex_);
    preset_ = preset;
    applyPresetLocked();
}

void SimulatedSession::applyPresetLocked() {
    const auto device = deviceLocked(MediaType::Video);
    for (const PresetSize& size : presetSizes()) {
        if (size.preset == preset_ && device != nullptr) device->setActiveSize(size.width, size.height);
    }
}

std::shared_ptr<SimulatedDevice> SimulatedSession::deviceLocked(MediaType mediaType) const {
    for (const auto& input : inputs_) {
        const auto& device = static_cast<const SimulatedDeviceInput&>(*input).simulatedDevice();
        if (device->mediaType() == mediaType) return device;
    }
    return nullptr;
}

template <typename Output>
std::shared_ptr<Output> SimulatedSession::outputLocked() const {
    for (const auto& output : outputs_) {
        if (auto found = std::dynamic_pointer_cast<Output>(output)) return found;
    }
    return nullptr;
}

void SimulatedSession::connectLocked() {
    for (const auto& output : outputs_) {
        auto& simulated = dynamic_cast<SimulatedOutput&>(*output);
        simulated.setConnected(deviceLocked(simulated.source()) != nullptr);
    }
    if (deviceLocked(MediaType::Video) == nullptr) {
        previewConnection_.reset();
    } else if (previewConnection_ == nullptr) {
        previewConnection_ = std::make_shared<SimulatedConnection>(true, VideoOrientation::Portrait);
    }
}

bool SimulatedSession::canAddInputLocked(const CaptureDeviceInput& input, const SimulatedFaults& faults) const {
    const auto* const simulated = dynamic_cast<const SimulatedDeviceInput*>(&input);
    if (simulated == nullptr || !simulated->simulatedDevice()->belongsTo(control_.get())) return false;
    const MediaType mediaType = simulated->simulatedDevice()->mediaType();
    const bool refused = mediaType == MediaType::Video ? faults.videoInputRefused : faults.audioInputRefused;
    return !refused && deviceLocked(mediaType) == nullptr;
}

bool SimulatedSession::canAddInput(const CaptureDeviceInput& input) const {
    const SimulatedFaults faults = control_->faults();
    const std::lock_guard lock(mutex_);
    return canAddInputLocked(input, faults);
}

void SimulatedSession::addInput(std::shared_ptr<CaptureDeviceInput> input) {
    const SimulatedFaults faults = control_->faults();
    const std::lock_guard lock(mutex_);
    if (input == nullptr || !canAddInputLocked(*input, faults)) {
        log("The simulated session cannot take the input");
        return;
    }
    const bool isVideo = input->device()->mediaType() == MediaType::Video;
    inputs_.push_back(std::move(input));
    connectLocked();
    if (isVideo) applyPresetLocked();
}

void SimulatedSession::removeInput(const std::shared_ptr<CaptureDeviceInput>& input) {
    const std::lock_guard lock(mutex_);
    std::erase(inputs_, input);
    connectLocked();
}

bool SimulatedSession::canAddOutputLocked(const CaptureOutput& output, const SimulatedFaults& faults) const {
    const auto* const simulated = dynamic_cast<const SimulatedOutput*>(&output);
    if (simulated == nullptr || simulated->refused(faults) || simulated->isTaken()) return false;
    return std::none_of(outputs_.begin(), outputs_.end(),
                        [&](const auto& present) { return typeid(*present) == typeid(output); });
}

bool SimulatedSession::canAddOutput(const CaptureOutput& output) const {
    const SimulatedFaults faults = control_->faults();
    const std::lock_guard lock(mutex_);
    return canAddOutputLocked(output, faults);
}

void SimulatedSession::addOutput(std::shared_ptr<CaptureOutput> output) {
    const SimulatedFaults faults = control_->faults();
    const std::lock_guard lock(mutex_);
    if (output == nullptr || !canAddOutputLocked(*output, faults) || !dynamic_cast<SimulatedOutput&>(*output).take()) {
        log("The simulated session cannot take the output");
        return;
    }
    outputs_.push_back(std::move(output));
    connectLocked();
}

void SimulatedSession::removeOutput(const std::shared_ptr<CaptureOutput>& output) {
    const std::lock_guard lock(mutex_);
    if (std::erase(outputs_, output) == 0) return;
    auto& simulated = dynamic_cast<SimulatedOutput&>(*output);
    simulated.setConnected(false);
    simulated.giveBack();
}

std::vector<std::shared_ptr<CaptureOutput>> SimulatedSession::outputs() const {
    const std::lock_guard lock(mutex_);
    return outputs_;
}

std::shared_ptr<CaptureConnection> SimulatedSession::previewConnection() const {
    const std::lock_guard lock(mutex_);
    return previewConnection_;
}

bool SimulatedSession::isRunning() const {
    const std::lock_guard lock(mutex_);
    return running_;
}

nanoseconds SimulatedSession::masterClockTime() const {
    return control_->scene->clockTime();
}

nanoseconds SimulatedSession::framePeriod() const {
    return nanoseconds(std::llround(1e9 / control_->options.frameRate));
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
    const Joined joined = joinedParts();

    if (faults.deviceLost && joined.camera != nullptr) {
        {
            const std::lock_guard lock(mutex_);
            if (run_ == run) running_ = false;
        }
        run->end();
        log("The simulated camera was disconnected");
        return;
    }
    if (joined.video != nullptr && joined.camera != nullptr && !faults.framesStall) {
        const auto size = joined.camera->activeFormat()->formatDescription;
        ++run->frames;
        const bool drop = faults.dropEvery > 0 && run->frames % faults.dropEvery == 0;
        joined.video->setSensorSize(size.width, size.height);
        joined.video->deliver(scriptTime, {.presentationTime = clockTime, .duration = framePeriod()}, drop);
    }
    if (joined.audio != nullptr) {
        constexpr int kBlock = SimulatedAudioDataOutput::kBlockSamples;
        const nanoseconds elapsed = clockTime - run->start;
        while (timeOfSamples(run->samples + kBlock) + kLongestSilence < elapsed) run->samples += kBlock;
        for (; timeOfSamples(run->samples + kBlock) <= elapsed; run->samples += kBlock) {
            joined.audio->deliver(run->samples, {.presentationTime = run->start + timeOfSamples(run->samples),
                                                 .duration = timeOfSamples(kBlock)});
        }
    }
    if (joined.metadata != nullptr && !faults.framesStall) {
        if (const auto barcode = control_->scene->frames().script().stateAt(scriptTime).barcode)
            joined.metadata->deliver(*barcode);
    }
}

SimulatedSession::Joined SimulatedSession::joinedParts() const {
    const std::lock_guard lock(mutex_);
    return {deviceLocked(MediaType::Video), outputLocked<SimulatedVideoDataOutput>(),
            outputLocked<SimulatedAudioDataOutput>(), outputLocked<SimulatedMetadataOutput>()};
}

}  // namespace selvio
