// A capture system of one camera and one microphone that writes down what is asked of it and refuses what the test
// says.
#pragma once

#include <SelvioFacialCapture/platform/Capture.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <set>
#include <utility>

#include "support/CallLog.h"

namespace selvio {

/// What goes wrong, and everything the fakes share. Fill it before the calls.
struct FakeCaptureScript {
    CallLog calls;
    std::set<std::string>
        refused;  ///< by the session: "camera", "microphone", "video", "audio", "metadata", or a preset
    std::set<std::string> failingInputs;  ///< "camera", "microphone"
    bool noCamera = false;
    bool noMicrophone = false;
    bool lockFails = false;
    bool focusSupported = true;
    std::atomic<bool> torch{false};
    std::vector<CaptureDeviceFormat> formats;
    std::string codec = kVideoCodecTypeH264;
    AuthorizationStatus authorization = AuthorizationStatus::Authorized;
};
using FakeScript = std::shared_ptr<FakeCaptureScript>;

class FakeConnection final : public CaptureConnection {
public:
    FakeConnection(FakeScript script, std::string name, bool supported = true)
        : script_(std::move(script)), name_(std::move(name)), supported_(supported) {}
    [[nodiscard]] bool isVideoOrientationSupported() const override { return supported_; }
    void setVideoOrientation(VideoOrientation orientation) override {
        script_->calls.add(name_ + " orientation " + std::to_string(static_cast<std::int64_t>(orientation)));
    }
    [[nodiscard]] VideoOrientation videoOrientation() const override { return VideoOrientation::NotSet; }

private:
    const FakeScript script_;
    const std::string name_;
    const bool supported_;
};

class FakeCaptureDevice final : public CaptureDevice {
public:
    FakeCaptureDevice(FakeScript script, std::string name) : script_(std::move(script)), name_(std::move(name)) {}
    [[nodiscard]] std::string uniqueId() const override { return name_; }
    [[nodiscard]] std::string localizedName() const override { return name_; }
    [[nodiscard]] MediaType mediaType() const override {
        return name_ == "camera" ? MediaType::Video : MediaType::Audio;
    }
    [[nodiscard]] CaptureDevicePosition position() const override { return CaptureDevicePosition::Back; }
    [[nodiscard]] std::vector<CaptureDeviceFormat> formats() const override { return script_->formats; }
    [[nodiscard]] std::optional<CaptureDeviceFormat> activeFormat() const override { return std::nullopt; }
    std::optional<Error> lockForConfiguration() override {
        say("lock");
        return script_->lockFails ? std::optional(Error{"in use"}) : std::nullopt;
    }
    void unlockForConfiguration() override { say("unlock"); }
    void setActiveFormat(const CaptureDeviceFormat& format) override {
        say("format " + std::to_string(format.formatDescription.width) + "x" +
            std::to_string(format.formatDescription.height));
    }
    [[nodiscard]] bool isFocusPointOfInterestSupported() const override { return script_->focusSupported; }
    void setFocusPointOfInterest(Point point) override {
        say(point == Point{0.5, 0.5} ? "focus centre" : "focus elsewhere");
    }
    [[nodiscard]] bool isFocusModeSupported(FocusMode mode) const override {
        return script_->focusSupported && mode == FocusMode::ContinuousAutoFocus;
    }
    void setFocusMode(FocusMode mode) override { say("focus mode " + std::to_string(static_cast<std::int64_t>(mode))); }
    [[nodiscard]] bool hasTorch() const override { return script_->torch; }
    void setTorchMode(TorchMode mode) override { say(mode == TorchMode::On ? "torch on" : "torch off"); }

private:
    void say(const std::string& what) { script_->calls.add(name_ + " " + what); }
    const FakeScript script_;
    const std::string name_;
};

class FakeCaptureInput final : public CaptureDeviceInput {
public:
    explicit FakeCaptureInput(std::shared_ptr<CaptureDevice> device) : device_(std::move(device)) {}
    [[nodiscard]] const std::shared_ptr<CaptureDevice>& device() const override { return device_; }

private:
    const std::shared_ptr<CaptureDevice> device_;
};

/// What all outputs share: a name, a connection that can be turned and one that cannot, and the receiver.
template <typename Port>
class FakeOutput : public Port {
public:
    FakeOutput(FakeScript script, std::string name) : script_(std::move(script)), name_(std::move(name)) {}
    [[nodiscard]] std::vector<std::shared_ptr<CaptureConnection>> connections() const override {
        return {std::make_shared<FakeConnection>(script_, name_ + " fixed", false),
                std::make_shared<FakeConnection>(script_, name_)};
    }
    void deliver(const std::shared_ptr<SampleBuffer>& sample) {
        submit([this, sample](CaptureOutputDelegate& to) {
            to.captureOutputDidOutputSampleBuffer(*this, sample, nullptr);
        });
    }
    void drop(const std::shared_ptr<SampleBuffer>& sample) {
        submit(
            [this, sample](CaptureOutputDelegate& to) { to.captureOutputDidDropSampleBuffer(*this, sample, nullptr); });
    }

protected:
    void setReceiver(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) {
        say("receiver on " + (queue ? queue->label() : "nothing"));
        const std::lock_guard lock(mutex_);
        delegate_ = std::move(delegate);
        queue_ = std::move(queue);
    }
    /// Submits `deliver(delegate)` to the delegate's queue, if one is set.
    void submit(std::function<void(CaptureOutputDelegate&)> deliver) {
        const std::lock_guard lock(mutex_);
        if (!queue_) return;
        queue_->async([weak = delegate_, deliver = std::move(deliver)] {
            if (const auto delegate = weak.lock()) deliver(*delegate);
        });
    }
    void say(const std::string& what) { script_->calls.add(name_ + " " + what); }
    const FakeScript script_;

private:
    const std::string name_;
    std::mutex mutex_;
    std::weak_ptr<CaptureOutputDelegate> delegate_;  // guarded by mutex_
    std::shared_ptr<Queue> queue_;                   // guarded by mutex_
};

class FakeVideoDataOutput final : public FakeOutput<VideoDataOutput> {
public:
    using FakeOutput::FakeOutput;
    void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) override {
        setReceiver(std::move(delegate), std::move(queue));
    }
    void setPixelFormat(PixelFormat format) override { say("format " + std::to_string(format)); }
    void setAlwaysDiscardsLateVideoFrames(bool discards) override { say(discards ? "discards late" : "keeps late"); }
    [[nodiscard]] VideoSettings recommendedVideoSettings(const std::string& fileType) const override {
        return {fileType == kFileTypeMPEG4 ? script_->codec : "", 640, 480, {{"Profile", 7}}};
    }
};

class FakeAudioDataOutput final : public FakeOutput<AudioDataOutput> {
public:
    using FakeOutput::FakeOutput;
    void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) override {
        setReceiver(std::move(delegate), std::move(queue));
    }
    [[nodiscard]] AudioSettings recommendedAudioSettings(const std::string&) const override {
        return {44100, 2, 128000};
    }
};

class FakeMetadataOutput final : public FakeOutput<MetadataOutput> {
public:
    using FakeOutput::FakeOutput;
    void setMetadataObjectsDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                    std::shared_ptr<Queue> queue) override {
        setReceiver(std::move(delegate), std::move(queue));
    }
    void setMetadataObjectTypes(std::vector<std::string> types) override {
        say("types " + (types.size() == 1 ? types[0] : "wrong"));
    }
    void decode(std::vector<MetadataObject> objects) {
        submit([this, objects](CaptureOutputDelegate& to) {
            to.captureOutputDidOutputMetadataObjects(*this, objects, nullptr);
        });
    }
};

inline std::string nameOf(const CaptureOutput& output) {
    if (dynamic_cast<const VideoDataOutput*>(&output)) return "video";
    return dynamic_cast<const AudioDataOutput*>(&output) ? "audio" : "metadata";
}

class FakeCaptureSession final : public CaptureSession {
public:
    explicit FakeCaptureSession(FakeScript script) : script_(std::move(script)) {}
    [[nodiscard]] std::recursive_mutex& monitor() override { return monitor_; }
    void beginConfiguration() override { script_->calls.add("begin"); }
    void commitConfiguration() override { script_->calls.add("commit"); }
    [[nodiscard]] bool canSetSessionPreset(const std::string& preset) const override {
        script_->calls.add("can set " + preset);
        return !script_->refused.contains(preset);
    }
    void setSessionPreset(const std::string& preset) override { script_->calls.add("set " + preset); }
    [[nodiscard]] bool canAddInput(const CaptureDeviceInput& input) const override {
        // As a real session: one input of a kind.
        const std::lock_guard lock(mutex_);
        const auto same = [&](const auto& other) { return other->device()->uniqueId() == input.device()->uniqueId(); };
        return !script_->refused.contains(input.device()->uniqueId()) &&
               std::none_of(inputs_.begin(), inputs_.end(), same);
    }
    void addInput(std::shared_ptr<CaptureDeviceInput> input) override {
        script_->calls.add("add " + input->device()->uniqueId());
        const std::lock_guard lock(mutex_);
        inputs_.push_back(std::move(input));
    }
    void removeInput(const std::shared_ptr<CaptureDeviceInput>& input) override {
        sayGuarded("remove " + input->device()->uniqueId());
        const std::lock_guard lock(mutex_);
        std::erase(inputs_, input);
    }
    [[nodiscard]] bool canAddOutput(const CaptureOutput& output) const override {
        return !script_->refused.contains(nameOf(output));
    }
    void addOutput(std::shared_ptr<CaptureOutput> output) override {
        script_->calls.add("add " + nameOf(*output));
        const std::lock_guard lock(mutex_);
        outputs_.push_back(std::move(output));
    }
    void removeOutput(const std::shared_ptr<CaptureOutput>& output) override {
        sayGuarded("remove " + nameOf(*output));
        const std::lock_guard lock(mutex_);
        std::erase(outputs_, output);
    }
    [[nodiscard]] std::vector<std::shared_ptr<CaptureOutput>> outputs() const override {
        const std::lock_guard lock(mutex_);
        return outputs_;
    }
    [[nodiscard]] std::vector<std::shared_ptr<CaptureDeviceInput>> inputs() const {
        const std::lock_guard lock(mutex_);
        return inputs_;
    }
    [[nodiscard]] bool isRunning() const override { return running_; }
    void startRunning() override {
        script_->calls.add("run");
        running_ = true;
    }
    void stopRunning() override {
        sayGuarded("stop");
        running_ = false;
    }
    [[nodiscard]] std::chrono::nanoseconds masterClockTime() const override { return std::chrono::seconds(42); }

private:
    /// For what must not be done without the monitor.
    void sayGuarded(const std::string& call) {
        const auto isFree = [this] { return std::unique_lock(monitor_, std::try_to_lock).owns_lock(); };
        script_->calls.add(call + (std::async(std::launch::async, isFree).get() ? " unlocked" : ""));
    }

    const FakeScript script_;
    std::recursive_mutex monitor_;
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<CaptureDeviceInput>> inputs_;  // guarded by mutex_
    std::vector<std::shared_ptr<CaptureOutput>> outputs_;      // guarded by mutex_
    std::atomic<bool> running_{false};
};

class FakeCaptureSystem final : public CaptureSystem {
public:
    explicit FakeCaptureSystem(FakeScript script) : script_(std::move(script)) {}
    [[nodiscard]] std::shared_ptr<CaptureDeviceDiscoverySession> discoverDevices(
        const std::vector<std::string>& types, MediaType mediaType, CaptureDevicePosition position) override {
        script_->calls.add("discover " + (types.size() == 1 ? types[0] : "wrong") +
                           (mediaType == MediaType::Video ? " video " : " audio ") +
                           std::to_string(static_cast<std::int64_t>(position)));
        auto found = std::make_shared<CaptureDeviceDiscoverySession>();
        if (!script_->noCamera) found->devices = {camera_, microphone_};  // the first is to be taken
        return found;
    }
    [[nodiscard]] std::shared_ptr<CaptureDevice> defaultDevice(MediaType mediaType) override {
        return mediaType == MediaType::Audio && !script_->noMicrophone ? microphone_ : nullptr;
    }
    [[nodiscard]] Expected<std::shared_ptr<CaptureDeviceInput>> makeDeviceInput(
        const std::shared_ptr<CaptureDevice>& device) override {
        if (script_->failingInputs.contains(device->uniqueId())) return Error{"not allowed"};
        return std::shared_ptr<CaptureDeviceInput>(std::make_shared<FakeCaptureInput>(device));
    }
    [[nodiscard]] std::shared_ptr<CaptureSession> makeSession() override {
        return std::make_shared<FakeCaptureSession>(script_);
    }
    [[nodiscard]] std::shared_ptr<VideoDataOutput> makeVideoDataOutput() override {
        return video_ = std::make_shared<FakeVideoDataOutput>(script_, "video");
    }
    [[nodiscard]] std::shared_ptr<AudioDataOutput> makeAudioDataOutput() override {
        return std::make_shared<FakeAudioDataOutput>(script_, "audio");
    }
    [[nodiscard]] std::shared_ptr<MetadataOutput> makeMetadataOutput() override {
        return std::make_shared<FakeMetadataOutput>(script_, "metadata");
    }
    [[nodiscard]] AuthorizationStatus authorizationStatus(MediaType) override { return script_->authorization; }
    void requestAccess(MediaType mediaType, std::function<void(bool granted)> completion) override {
        completion(mediaType == MediaType::Video);
    }

    /// The output made last.
    [[nodiscard]] const std::shared_ptr<FakeVideoDataOutput>& video() const { return video_; }

private:
    const FakeScript script_;
    std::shared_ptr<FakeVideoDataOutput> video_;
    const std::shared_ptr<CaptureDevice> camera_ = std::make_shared<FakeCaptureDevice>(script_, "camera");
    const std::shared_ptr<CaptureDevice> microphone_ = std::make_shared<FakeCaptureDevice>(script_, "microphone");
};

}  // namespace selvio
