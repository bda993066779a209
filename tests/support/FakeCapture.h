// A capture system of one camera and one microphone, and writers, that write down what is asked of them and refuse what
// the test says.
#pragma once

#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/platform/AssetWriter.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <set>

#include "platform/capture/CaptureSessionBase.h"
#include "support/CallLog.h"

namespace selvio {

class FakeAssetWriter;

/// What goes wrong, and everything the fakes share. Fill it before the calls.
struct FakeCaptureScript {
    CallLog calls;
    /// To be found: "camera device", "microphone device"; opened: "camera input", "microphone input"; "lock"; to join
    /// the session: "camera", "microphone", "video", "audio", "metadata", or a preset; "run"; "writer"; to join that:
    /// "video track", "audio track"; "samples".
    std::set<std::string> refused;
    bool torch = false, focusSupported = true;
    std::atomic<bool> finishesAtOnce{false};  ///< each writer
    std::vector<CaptureDeviceFormat> formats;
    std::string codec = kVideoCodecTypeH264;
    AuthorizationStatus authorization = AuthorizationStatus::Authorized;
    std::vector<std::weak_ptr<FakeAssetWriter>> writers;  ///< those made
    std::function<void()> duringStop = [] {};             ///< of the session

    bool allows(const std::string& what) const { return !refused.contains(what); }
};
using FakeScript = std::shared_ptr<FakeCaptureScript>;

/// Whoever writes calls down, under a name if the test knows it by one.
struct FakePart {
    explicit FakePart(FakeScript script, std::string name = {}) : script(std::move(script)), name(std::move(name)) {}
    virtual ~FakePart() = default;
    void say(const auto&... words) const {
        name.empty() ? script->calls.add(words...) : script->calls.add(name, words...);
    }
    static const std::string& nameOf(const auto& part) { return dynamic_cast<const FakePart&>(part).name; }

    const FakeScript script;
    const std::string name;
};

struct FakeConnection final : CaptureConnection, FakePart {
    using FakePart::FakePart;
    bool isVideoOrientationSupported() const override { return !name.ends_with("fixed"); }
    void setVideoOrientation(VideoOrientation value) override { say("orientation", static_cast<int>(value)); }
    VideoOrientation videoOrientation() const override { return VideoOrientation::NotSet; }
};

struct FakeCaptureDevice final : CaptureDevice, FakePart {
    using FakePart::FakePart;
    std::string uniqueId() const override { return name; }
    std::string localizedName() const override { return name; }
    MediaType mediaType() const override { return name == "camera" ? MediaType::Video : MediaType::Audio; }
    CaptureDevicePosition position() const override { return CaptureDevicePosition::Back; }
    std::vector<CaptureDeviceFormat> formats() const override { return script->formats; }
    std::optional<CaptureDeviceFormat> activeFormat() const override { return std::nullopt; }
    std::optional<Error> lockForConfiguration() override {
        return say("lock"), script->allows("lock") ? std::nullopt : std::optional(Error{"in use"});
    }
    void unlockForConfiguration() override { say("unlock"); }
    void setActiveFormat(const CaptureDeviceFormat& format) override {
        say("format", format.formatDescription.width, format.formatDescription.height);
    }
    bool isFocusPointOfInterestSupported() const override { return script->focusSupported; }
    void setFocusPointOfInterest(Point point) override { say("focus", point.x, point.y); }
    bool isFocusModeSupported(FocusMode mode) const override {
        return script->focusSupported && mode == FocusMode::ContinuousAutoFocus;
    }
    void setFocusMode(FocusMode mode) override { say("focus mode", static_cast<int>(mode)); }
    bool hasTorch() const override { return script->torch; }
    void setTorchMode(TorchMode mode) override { say("torch", mode == TorchMode::On ? "on" : "off"); }
};

// NOLINTBEGIN(modernize-use-override): which functions override depends on the port.
/// An output of any kind: what is not in the port's interface is not called. Of its connections one can be turned and
/// one cannot.
template <typename Port>
struct FakeOutput final : Port, FakePart {
    using FakePart::FakePart;
    std::vector<std::shared_ptr<CaptureConnection>> connections() const {
        return {std::make_shared<FakeConnection>(script, name + " fixed"),
                std::make_shared<FakeConnection>(script, name)};
    }
    void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) {
        say("receiver on", queue ? queue->label() : "nothing");
        mutex.set(receiver, {std::move(delegate), std::move(queue)});
    }
    void setMetadataObjectsDelegate(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) {
        setSampleBufferDelegate(std::move(delegate), std::move(queue));
    }
    void setPixelFormat(PixelFormat format) { say("format", format); }
    void setAlwaysDiscardsLateVideoFrames(bool discards) { say(discards ? "discards late" : "keeps late"); }
    void setMetadataObjectTypes(std::vector<std::string> types) { say(types.size(), "type:", types[0]); }
    VideoSettings recommendedVideoSettings(const std::string& fileType) const {
        return {fileType == kFileTypeMPEG4 ? script->codec : "", 640, 480, {{"Profile", 7}, {"AverageBitRate", 1}}};
    }
    AudioSettings recommendedAudioSettings(const std::string&) const { return {44100, 2, 128000}; }

    /// Something comes from it, if it has a receiver, on the receiver's queue.
    void deliver(const std::function<void(CaptureOutputDelegate&)>& what) {
        const auto [to, queue] = mutex.get(receiver);
        if (!queue) return;
        queue->async([what, receiver = to] {
            if (const auto delegate = receiver.lock()) what(*delegate);
        });
    }
    void deliver(const std::shared_ptr<SampleBuffer>& sample) {
        deliver([=, this](auto& to) { to.captureOutputDidOutputSampleBuffer(*this, sample, nullptr); });
    }

    MemberMutex mutex;
    std::pair<std::weak_ptr<CaptureOutputDelegate>, std::shared_ptr<Queue>> receiver;  // guarded by mutex
};
// NOLINTEND(modernize-use-override)

class FakeCaptureSession final : public CaptureSession, FakePart {
public:
    using FakePart::FakePart;
    std::recursive_mutex& monitor() override { return monitor_; }
    void beginConfiguration() override { say("begin"); }
    void commitConfiguration() override { say("commit"); }
    bool canSetSessionPreset(const std::string& preset) const override {
        return say("can set", preset), script->allows(preset);
    }
    void setSessionPreset(const std::string& preset) override { say("set", preset); }
    bool canAddInput(const CaptureDeviceInput& input) const override {
        // As a real session: one input of a kind.
        const auto same = [&](const auto& other) { return other->device() == input.device(); };
        const auto own = inputs();
        return script->allows(nameOf(input)) && std::none_of(own.begin(), own.end(), same);
    }
    void addInput(std::shared_ptr<CaptureDeviceInput> input) override { add(inputs_, input); }
    void removeInput(const std::shared_ptr<CaptureDeviceInput>& input) override { remove(inputs_, input); }
    bool canAddOutput(const CaptureOutput& output) const override { return script->allows(nameOf(output)); }
    void addOutput(std::shared_ptr<CaptureOutput> output) override { add(outputs_, output); }
    void removeOutput(const std::shared_ptr<CaptureOutput>& output) override {
        say("remove", nameOf(*output)), remove(outputs_, output);
    }
    std::vector<std::shared_ptr<CaptureOutput>> outputs() const override { return mutex_.get(outputs_); }
    std::vector<std::shared_ptr<CaptureDeviceInput>> inputs() const { return mutex_.get(inputs_); }
    bool hasVideoInput() const override {
        const auto isVideo = [](const auto& input) { return input->device()->mediaType() == MediaType::Video; };
        return std::ranges::any_of(inputs(), isVideo);
    }
    bool isRunning() const override { return running_; }
    void startRunning() override { say("run"), running_ = script->allows("run"); }
    void stopRunning() override { say("stop"), sayIfUnlocked(), script->duringStop(), running_ = false; }
    std::chrono::nanoseconds masterClockTime() const override { return std::chrono::seconds(42); }

private:
    using FakePart::nameOf;
    static std::string nameOf(const CaptureDeviceInput& input) { return input.device()->uniqueId(); }
    void add(auto& parts, const auto& part) {
        say("add", nameOf(*part));
        const std::lock_guard lock(mutex_);
        parts.push_back(part);
    }
    void remove(auto& parts, const auto& part) {
        sayIfUnlocked();
        const std::lock_guard lock(mutex_);
        std::erase(parts, part);
    }
    /// For what must not be done without the monitor.
    void sayIfUnlocked() {
        const auto isFree = [this] { return std::unique_lock(monitor_, std::try_to_lock).owns_lock(); };
        if (std::async(std::launch::async, isFree).get()) say("unlocked");
    }

    std::recursive_mutex monitor_;
    mutable MemberMutex mutex_;
    std::vector<std::shared_ptr<CaptureDeviceInput>> inputs_;  // guarded by mutex_
    std::vector<std::shared_ptr<CaptureOutput>> outputs_;      // guarded by mutex_
    std::atomic<bool> running_{false};
};

struct FakeCaptureSystem final : CaptureSystem, FakePart {
    using FakePart::FakePart;
    std::shared_ptr<CaptureDeviceDiscoverySession> discoverDevices(const std::vector<std::string>& types,
                                                                   MediaType mediaType,
                                                                   CaptureDevicePosition position) override {
        const char* const media = mediaType == MediaType::Video ? "video" : "audio";
        say("discover", types.size(), "type:", types[0], media, static_cast<int>(position));
        auto found = std::make_shared<CaptureDeviceDiscoverySession>();
        if (script->allows("camera device")) found->devices = {camera, microphone};  // the first is to be taken
        return found;
    }
    std::shared_ptr<CaptureDevice> defaultDevice(MediaType mediaType) override {
        return mediaType == MediaType::Audio && script->allows("microphone device") ? microphone : nullptr;
    }
    Expected<std::shared_ptr<CaptureDeviceInput>> makeDeviceInput(
        const std::shared_ptr<CaptureDevice>& device) override {
        if (!script->allows(device->uniqueId() + " input")) return Error{"not allowed"};
        return std::shared_ptr<CaptureDeviceInput>(std::make_shared<DeviceInput>(device, nullptr));
    }
    std::shared_ptr<CaptureSession> makeSession() override {
        return session = std::make_shared<FakeCaptureSession>(script);
    }
    std::shared_ptr<VideoDataOutput> makeVideoDataOutput() override { return make(video, "video"); }
    std::shared_ptr<AudioDataOutput> makeAudioDataOutput() override { return make(audio, "audio"); }
    std::shared_ptr<MetadataOutput> makeMetadataOutput() override { return make(metadata, "metadata"); }
    AuthorizationStatus authorizationStatus(MediaType) override { return script->authorization; }
    void requestAccess(MediaType mediaType, std::function<void(bool granted)> completion) override {
        completion(mediaType == MediaType::Video);
    }
    template <typename Part>
    std::shared_ptr<Part> make(std::shared_ptr<Part>& last, const char* kind) {
        return last = std::make_shared<Part>(script, kind);
    }

    const std::shared_ptr<CaptureDevice> camera = std::make_shared<FakeCaptureDevice>(script, "camera"),
                                         microphone = std::make_shared<FakeCaptureDevice>(script, "microphone");
    // What was made last.
    std::shared_ptr<FakeCaptureSession> session;
    std::shared_ptr<FakeOutput<VideoDataOutput>> video;
    std::shared_ptr<FakeOutput<AudioDataOutput>> audio;
    std::shared_ptr<FakeOutput<MetadataOutput>> metadata;
};

struct FakeAssetWriterInput final : AssetWriterInput, FakePart {
    using FakePart::FakePart;
    void setExpectsMediaDataInRealTime(bool expects) override { say(expects ? "real time" : "batch"); }
    bool isReadyForMoreMediaData() const override { return script->allows("samples"); }
    bool appendSampleBuffer(const std::shared_ptr<SampleBuffer>&) override { return say("sample"), true; }
    void markAsFinished() override { say("finished"); }
};

/// The test says how it finishes.
class FakeAssetWriter final : public AssetWriter, FakePart {
public:
    using FakePart::FakePart;
    AssetWriterStatus status() const override { return status_; }
    bool canAddInput(const AssetWriterInput& input) const override { return script->allows(nameOf(input)); }
    void addInput(std::shared_ptr<AssetWriterInput> input) override { say("add", nameOf(*input)); }
    bool startWriting() override { return say("start"), status_ = AssetWriterStatus::Writing, true; }
    void startSessionAtSourceTime(std::chrono::nanoseconds time) override {
        say("from", time / std::chrono::seconds(1), "s");
    }
    void finishWriting(std::function<void()> completion) override {
        say("finish");
        completion_ = std::move(completion);
        if (script->finishesAtOnce) finish(AssetWriterStatus::Completed);
    }
    void cancelWriting() override { say("cancel"), status_ = AssetWriterStatus::Cancelled; }
    void finish(AssetWriterStatus status) {
        status_ = status;
        if (const auto completion = std::exchange(completion_, nullptr)) completion();
    }

private:
    std::atomic<AssetWriterStatus> status_{AssetWriterStatus::Unknown};
    std::function<void()> completion_;
};

struct FakeAssetWriterFactory final : AssetWriterFactory, FakePart {
    using FakePart::FakePart;
    Expected<std::shared_ptr<AssetWriter>> makeAssetWriter(const std::filesystem::path& path,
                                                           const std::string& fileType) override {
        say("make", fileType, path.string());
        if (!script->allows("writer")) return Error{"no room"};
        auto writer = std::make_shared<FakeAssetWriter>(script);
        script->writers.push_back(writer);
        return std::shared_ptr<AssetWriter>(std::move(writer));
    }
    std::shared_ptr<AssetWriterInput> makeVideoInput(const VideoSettings& settings) override {
        std::string properties;
        for (const auto& [key, value] : settings.compressionProperties) properties += key + std::to_string(value) + " ";
        say("video track", settings.codec, settings.width, settings.height, properties);
        return std::make_shared<FakeAssetWriterInput>(script, "video track");
    }
    std::shared_ptr<AssetWriterInput> makeAudioInput(const AudioSettings& settings) override {
        say("audio track", settings.sampleRate, settings.bitRate);
        return std::make_shared<FakeAssetWriterInput>(script, "audio track");
    }
};

}  // namespace selvio
