// A capture system of one camera and one microphone that writes down what is asked of it and refuses what the test
// says.
#pragma once

#include <SelvioFacialCapture/base/MemberMutex.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <set>
#include <utility>

#include "platform/capture/CaptureSessionBase.h"
#include "support/CallLog.h"

namespace selvio {

/// What goes wrong, and everything the fakes share. Fill it before the calls.
struct FakeCaptureScript {
    CallLog calls;
    /// By the session: "camera", "microphone", "video", "audio", "metadata", or a preset.
    std::set<std::string> refused;
    std::set<std::string> failingInputs;  ///< "camera", "microphone"
    bool noCamera = false, noMicrophone = false, lockFails = false, focusSupported = true;
    std::atomic<bool> torch{false};
    std::vector<CaptureDeviceFormat> formats;
    std::string codec = kVideoCodecTypeH264;
    AuthorizationStatus authorization = AuthorizationStatus::Authorized;
};
using FakeScript = std::shared_ptr<FakeCaptureScript>;

/// The name of a part, under which its calls are written down.
class FakePart {
public:
    FakePart(FakeScript script, std::string name) : script_(std::move(script)), name_(std::move(name)) {}

protected:
    void say(const std::string& what) const { script_->calls.add(name_ + " " + what); }
    void say(const std::string& what, auto number) const {
        say(what + " " + std::to_string(static_cast<std::int64_t>(number)));
    }
    const FakeScript script_;
    const std::string name_;
};

class FakeConnection final : public CaptureConnection, public FakePart {
public:
    using FakePart::FakePart;
    [[nodiscard]] bool isVideoOrientationSupported() const override { return !name_.ends_with("fixed"); }
    void setVideoOrientation(VideoOrientation orientation) override { say("orientation", orientation); }
    [[nodiscard]] VideoOrientation videoOrientation() const override { return VideoOrientation::NotSet; }
};

class FakeCaptureDevice final : public CaptureDevice, public FakePart {
public:
    using FakePart::FakePart;
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
        say("format " + std::to_string(format.formatDescription.width) + "x", format.formatDescription.height);
    }
    [[nodiscard]] bool isFocusPointOfInterestSupported() const override { return script_->focusSupported; }
    void setFocusPointOfInterest(Point point) override {
        say(point == Point{0.5, 0.5} ? "focus centre" : "focus elsewhere");
    }
    [[nodiscard]] bool isFocusModeSupported(FocusMode mode) const override {
        return script_->focusSupported && mode == FocusMode::ContinuousAutoFocus;
    }
    void setFocusMode(FocusMode mode) override { say("focus mode", mode); }
    [[nodiscard]] bool hasTorch() const override { return script_->torch; }
    void setTorchMode(TorchMode mode) override { say(mode == TorchMode::On ? "torch on" : "torch off"); }
};

/// An output of any kind: what is not in the port's interface is not called. Of its connections one can be turned and
/// one cannot.
template <typename Port>
class FakeOutput final : public Port, public FakePart {
public:
    using FakePart::FakePart;
    [[nodiscard]] std::vector<std::shared_ptr<CaptureConnection>> connections() const {
        return {std::make_shared<FakeConnection>(script_, name_ + " fixed"),
                std::make_shared<FakeConnection>(script_, name_)};
    }
    void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) {
        say("receiver on " + (queue ? queue->label() : "nothing"));
        mutex_.set(receiver_, {std::move(delegate), std::move(queue)});
    }
    void setMetadataObjectsDelegate(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) {
        setSampleBufferDelegate(std::move(delegate), std::move(queue));
    }
    void setPixelFormat(PixelFormat format) { say("format", format); }
    void setAlwaysDiscardsLateVideoFrames(bool discards) { say(discards ? "discards late" : "keeps late"); }
    void setMetadataObjectTypes(std::vector<std::string> types) {
        say("types " + (types.size() == 1 ? types[0] : "wrong"));
    }
    [[nodiscard]] VideoSettings recommendedVideoSettings(const std::string& fileType) const {
        return {fileType == kFileTypeMPEG4 ? script_->codec : "", 640, 480, {{"Profile", 7}, {"AverageBitRate", 1}}};
    }
    [[nodiscard]] AudioSettings recommendedAudioSettings(const std::string&) const { return {44100, 2, 128000}; }

    // What comes from it, if it has a receiver, on the receiver's queue.

    void deliver(const std::shared_ptr<SampleBuffer>& sample) {
        submit([=, this](auto& to) { to.captureOutputDidOutputSampleBuffer(*this, sample, nullptr); });
    }
    void drop(const std::shared_ptr<SampleBuffer>& sample) {
        submit([=, this](auto& to) { to.captureOutputDidDropSampleBuffer(*this, sample, nullptr); });
    }
    void decode(const std::vector<MetadataObject>& objects) {
        submit([=, this](auto& to) { to.captureOutputDidOutputMetadataObjects(*this, objects, nullptr); });
    }

private:
    void submit(std::function<void(CaptureOutputDelegate&)> call) {
        const auto [receiver, queue] = mutex_.get(receiver_);
        if (!queue) return;
        queue->async([receiver = receiver, call = std::move(call)] {
            if (const auto delegate = receiver.lock()) call(*delegate);
        });
    }

    MemberMutex mutex_;
    std::pair<std::weak_ptr<CaptureOutputDelegate>, std::shared_ptr<Queue>> receiver_;  // guarded by mutex_
};

class FakeCaptureSession final : public CaptureSession {
public:
    explicit FakeCaptureSession(FakeScript script) : script_(std::move(script)) {}
    [[nodiscard]] std::recursive_mutex& monitor() override { return monitor_; }
    void beginConfiguration() override { say("begin"); }
    void commitConfiguration() override { say("commit"); }
    [[nodiscard]] bool canSetSessionPreset(const std::string& preset) const override {
        say("can set " + preset);
        return !script_->refused.contains(preset);
    }
    void setSessionPreset(const std::string& preset) override { say("set " + preset); }
    [[nodiscard]] bool canAddInput(const CaptureDeviceInput& input) const override {
        // As a real session: one input of a kind.
        const auto same = [&](const auto& other) { return other->device() == input.device(); };
        const auto own = mutex_.get(inputs_);
        return !script_->refused.contains(nameOf(input)) && std::none_of(own.begin(), own.end(), same);
    }
    void addInput(std::shared_ptr<CaptureDeviceInput> input) override { add(inputs_, std::move(input)); }
    void removeInput(const std::shared_ptr<CaptureDeviceInput>& input) override { remove(inputs_, input); }
    [[nodiscard]] bool canAddOutput(const CaptureOutput& output) const override {
        return !script_->refused.contains(nameOf(output));
    }
    void addOutput(std::shared_ptr<CaptureOutput> output) override { add(outputs_, std::move(output)); }
    void removeOutput(const std::shared_ptr<CaptureOutput>& output) override { remove(outputs_, output); }
    [[nodiscard]] std::vector<std::shared_ptr<CaptureOutput>> outputs() const override { return mutex_.get(outputs_); }
    [[nodiscard]] std::vector<std::shared_ptr<CaptureDeviceInput>> inputs() const { return mutex_.get(inputs_); }
    [[nodiscard]] bool isRunning() const override { return running_; }
    void startRunning() override {
        say("run");
        running_ = true;
    }
    void stopRunning() override {
        sayGuarded("stop");
        running_ = false;
    }
    [[nodiscard]] std::chrono::nanoseconds masterClockTime() const override { return std::chrono::seconds(42); }

private:
    static std::string nameOf(const CaptureDeviceInput& input) { return input.device()->uniqueId(); }
    static std::string nameOf(const CaptureOutput& output) {
        if (dynamic_cast<const VideoDataOutput*>(&output)) return "video";
        return dynamic_cast<const AudioDataOutput*>(&output) ? "audio" : "metadata";
    }
    template <typename Part>
    void add(std::vector<Part>& parts, Part part) {
        say("add " + nameOf(*part));
        const std::lock_guard lock(mutex_);
        parts.push_back(std::move(part));
    }
    template <typename Part>
    void remove(std::vector<Part>& parts, const Part& part) {
        sayGuarded("remove " + nameOf(*part));
        const std::lock_guard lock(mutex_);
        std::erase(parts, part);
    }
    void say(const std::string& call) const { script_->calls.add(call); }
    /// For what must not be done without the monitor.
    void sayGuarded(const std::string& call) {
        const auto isFree = [this] { return std::unique_lock(monitor_, std::try_to_lock).owns_lock(); };
        say(call + (std::async(std::launch::async, isFree).get() ? " unlocked" : ""));
    }

    const FakeScript script_;
    std::recursive_mutex monitor_;
    mutable MemberMutex mutex_;
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
        return std::shared_ptr<CaptureDeviceInput>(std::make_shared<DeviceInput>(device, nullptr));
    }
    [[nodiscard]] std::shared_ptr<CaptureSession> makeSession() override {
        return session_ = std::make_shared<FakeCaptureSession>(script_);
    }
    [[nodiscard]] std::shared_ptr<VideoDataOutput> makeVideoDataOutput() override { return make(video_, "video"); }
    [[nodiscard]] std::shared_ptr<AudioDataOutput> makeAudioDataOutput() override { return make(audio_, "audio"); }
    [[nodiscard]] std::shared_ptr<MetadataOutput> makeMetadataOutput() override { return make(metadata_, "metadata"); }
    [[nodiscard]] AuthorizationStatus authorizationStatus(MediaType) override { return script_->authorization; }
    void requestAccess(MediaType mediaType, std::function<void(bool granted)> completion) override {
        completion(mediaType == MediaType::Video);
    }

    // What was made last.

    [[nodiscard]] const auto& session() const { return session_; }
    [[nodiscard]] const auto& video() const { return video_; }
    [[nodiscard]] const auto& audio() const { return audio_; }
    [[nodiscard]] const auto& metadata() const { return metadata_; }

private:
    template <typename Part>
    std::shared_ptr<Part> make(std::shared_ptr<Part>& last, const char* name) {
        return last = std::make_shared<Part>(script_, name);
    }

    const FakeScript script_;
    const std::shared_ptr<CaptureDevice> camera_ = std::make_shared<FakeCaptureDevice>(script_, "camera");
    const std::shared_ptr<CaptureDevice> microphone_ = std::make_shared<FakeCaptureDevice>(script_, "microphone");
    std::shared_ptr<FakeCaptureSession> session_;
    std::shared_ptr<FakeOutput<VideoDataOutput>> video_;
    std::shared_ptr<FakeOutput<AudioDataOutput>> audio_;
    std::shared_ptr<FakeOutput<MetadataOutput>> metadata_;
};

}  // namespace selvio
