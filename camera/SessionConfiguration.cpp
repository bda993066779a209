#include "camera/SessionConfiguration.h"

#include <SelvioFacialCapture/base/Log.h>

#include <algorithm>

#include "camera/rules/SessionRules.h"

namespace selvio {
namespace {

/// One run. Each step returns whether the configuration continues.
/// The session may be null, after a shutdown; it then takes nothing, and the run ends where the video input is refused.
class Configuration {
public:
    explicit Configuration(const ConfigurationContext& context) : context_(context) {}

    void run() {
        if (session_) session_->beginConfiguration();
        const bool built = discoverDevice() && addVideoInput();
        if (built) {
            orientPreview();
            chooseResolution();
            addAudioInput();
            addVideoDataOutput();
            addAudioDataOutput();
            addMetaDataOutput();
        }
        if (session_) session_->commitConfiguration();
        if (!built || wasShutDown() || !focus()) return;
        orientOutputs(*session_, state_.get(&CameraValues::cameraOrientation));
        tellDelegate();
    }

private:
    bool discoverDevice() {
        std::shared_ptr<CaptureDeviceDiscoverySession> discovery;
        if (platform_.captureSystem) {
            discovery =
                platform_.captureSystem->discoverDevices({kCaptureDeviceTypeBuiltInWideAngleCamera}, MediaType::Video,
                                                         state_.get(&CameraValues::devicePosition));
        }
        if (discovery && !discovery->devices.empty()) device_ = discovery->devices.front();
        state_.set(&CameraValues::discoverySession, discovery);
        state_.set(&CameraValues::videoDevice, device_);
        if (!device_) log("Could not discover a capture device");
        return device_ != nullptr;
    }

    bool addVideoInput() {
        const std::shared_ptr<CaptureDeviceInput> input = makeInput(device_);
        state_.set(&CameraValues::videoInput, input);
        if (!input) {
            log("Could not create video device input: " + error_->localizedDescription);
            return false;
        }
        if (!addToSession(input)) {
            log("Could not add video device input to the session");
            return false;
        }
        return true;
    }

    void orientPreview() const {
        if (!platform_.mainQueue) return;
        platform_.mainQueue->async([weakState = std::weak_ptr(context_.state)] {
            const auto state = weakState.lock();
            const auto layer = state ? state->get(&CameraValues::videoPreviewLayer) : nullptr;
            const auto connection = layer ? layer->connection() : nullptr;
            if (connection)
                connection->setVideoOrientation(
                    rules::previewOrientation(state->get(&CameraValues::cameraOrientation)));
        });
    }

    void chooseResolution() const {
        const Size desired = state_.get(&CameraValues::desiredResolution);
        if (const auto preset = state_.get(&CameraValues::sessionPreset)) {
            session_->setSessionPreset(rules::presetToSet(
                *preset, [this](const std::string& name) { return session_->canSetSessionPreset(name); }));
        } else if (desired != Size{}) {
            const auto format =
                rules::searchFormat(device_->formats(), state_.get(&CameraValues::pixelBufferFormat), desired);
            if (!format) return;
            (void)device_->lockForConfiguration();  // a device that cannot be locked refuses the format itself
            device_->setActiveFormat(*format);
            device_->unlockForConfiguration();
        }
    }

    void addAudioInput() {
        if (!state_.recordAudio()) return;
        const auto device = platform_.captureSystem->defaultDevice(MediaType::Audio);
        state_.set(&CameraValues::audioDevice, device);
        const auto input = makeInput(device);
        state_.set(&CameraValues::audioInput, input);
        if (!input || !addToSession(input)) log("Could not add audio device input to the session");
    }

    void addVideoDataOutput() const {
        const auto output = platform_.captureSystem->makeVideoDataOutput();
        if (output) {
            output->setPixelFormat(rules::framePixelFormat(state_.get(&CameraValues::analyzeRGBVideo),
                                                           state_.get(&CameraValues::pixelBufferFormat)));
            output->setAlwaysDiscardsLateVideoFrames(true);
        }
        addSampleOutput(&CameraValues::videoDataOutput, output, "Can't add videoDataOutput");
    }

    void addAudioDataOutput() const {
        if (!state_.recordAudio() || !state_.get(&CameraValues::audioInput)) return;
        addSampleOutput(&CameraValues::audioDataOutput, platform_.captureSystem->makeAudioDataOutput(),
                        "Can't add audioDataOutput");
    }

    void addMetaDataOutput() const {
        if (!state_.get(&CameraValues::detectPDF417)) return;
        const auto output = platform_.captureSystem->makeMetadataOutput();
        state_.set(&CameraValues::metaDataOutput, output);
        if (output && platform_.makeSerialQueue) {
            const auto queue = platform_.makeSerialQueue("MetaDataOutputQueue");
            state_.set(&CameraValues::metaDataQueue, queue);
            output->setMetadataObjectsDelegate(context_.receiver, queue);
        }
        if (!output || !session_->canAddOutput(*output)) {
            log("Can't add metaDataOutput");
            state_.set(&CameraValues::metaDataOutput, nullptr);
            return;
        }
        session_->addOutput(output);
        // An output knows its types only once it has been added.
        output->setMetadataObjectTypes({kMetadataObjectTypePDF417Code});
    }

    /// A shutdown since the beginning took down what there was of the graph then; the rest is taken down here.
    bool wasShutDown() const {
        const std::lock_guard lock(session_->monitor());
        if (state_.session() == session_ && !context_.camera.expired()) return false;
        dismantleSession(*session_, state_);
        for (const auto& output : session_->outputs())
            session_->removeOutput(output);  // added after the state had forgotten it
        return true;
    }

    bool focus() {
        if (auto lockError = device_->lockForConfiguration()) error_ = std::move(lockError);
        if (device_->isFocusPointOfInterestSupported()) device_->setFocusPointOfInterest({0.5, 0.5});
        if (device_->isFocusModeSupported(FocusMode::ContinuousAutoFocus))
            device_->setFocusMode(FocusMode::ContinuousAutoFocus);
        device_->unlockForConfiguration();
        if (error_) log("Failed to set continuous autofocus and point of interest");
        return !error_;
    }

    void tellDelegate() const {
        const auto delegate = state_.delegate();
        if (!delegate || !delegate->didFinishConfiguringSession) return;
        state_.set(&CameraValues::configured, true);
        state_.delegateSlot()->tell(&SelvioFacialCaptureCameraDelegate::didFinishConfiguringSession);
    }

    /// Null leaves the reason in the error slot.
    std::shared_ptr<CaptureDeviceInput> makeInput(const std::shared_ptr<CaptureDevice>& device) {
        error_.reset();
        if (!device) {
            error_ = Error{"There is no device"};
            return nullptr;
        }
        auto input = platform_.captureSystem->makeDeviceInput(device);
        if (input && input.value()) return input.value();
        error_ = input ? Error{"The device gave no input"} : input.error();
        return nullptr;
    }

    bool addToSession(const std::shared_ptr<CaptureDeviceInput>& input) const {
        if (!session_ || !session_->canAddInput(*input)) return false;
        session_->addInput(input);
        auto added = state_.get(&CameraValues::addedInputs);
        added.push_back(input);
        state_.set(&CameraValues::addedInputs, std::move(added));
        return true;
    }

    template <typename Output>
    void addSampleOutput(std::shared_ptr<Output> CameraValues::*member, const std::shared_ptr<Output>& output,
                         const char* refused) const {
        state_.set(member, output);
        if (output) output->setSampleBufferDelegate(context_.receiver, context_.videoOutputQueue);
        if (output && session_->canAddOutput(*output)) {
            session_->addOutput(output);
        } else {
            log(refused);
            state_.set(member, nullptr);
        }
    }

    const ConfigurationContext& context_;
    const Platform& platform_ = context_.platform;
    CameraState& state_ = *context_.state;
    const std::shared_ptr<CaptureSession> session_ = state_.session();
    std::shared_ptr<CaptureDevice> device_;
    /// The one error slot of a run. A microphone that could not be opened leaves its error here, and the focus step,
    /// which only looks whether the slot is empty, then ends the run: a recording that was asked for with sound does
    /// not silently go without.
    std::optional<Error> error_;
};

}  // namespace

void configureSession(const ConfigurationContext& context) {
    Configuration(context).run();
}

void dismantleSession(CaptureSession& session, CameraState& state) {
    session.beginConfiguration();
    const auto remove = [&session](const auto& output, auto clearDelegate) {
        if (!output) return;
        ((*output).*clearDelegate)({}, nullptr);
        session.removeOutput(output);
    };
    remove(state.get(&CameraValues::videoDataOutput), &VideoDataOutput::setSampleBufferDelegate);
    remove(state.get(&CameraValues::audioDataOutput), &AudioDataOutput::setSampleBufferDelegate);
    remove(state.get(&CameraValues::metaDataOutput), &MetadataOutput::setMetadataObjectsDelegate);
    auto inputs = state.get(&CameraValues::addedInputs);
    for (const auto& input : {state.get(&CameraValues::videoInput), state.get(&CameraValues::audioInput)}) {
        if (input && std::find(inputs.begin(), inputs.end(), input) == inputs.end()) inputs.push_back(input);
    }
    for (const auto& input : inputs) session.removeInput(input);
    session.commitConfiguration();
    state.set(&CameraValues::addedInputs, {});
    state.set(&CameraValues::videoDataOutput, nullptr);
    state.set(&CameraValues::audioDataOutput, nullptr);
    state.set(&CameraValues::metaDataOutput, nullptr);
}

void orientOutputs(CaptureSession& session, VideoOrientation cameraOrientation) {
    for (const auto& output : session.outputs()) {
        for (const auto& connection : output->connections()) {
            if (connection->isVideoOrientationSupported())
                connection->setVideoOrientation(rules::outputOrientation(cameraOrientation));
        }
    }
}

}  // namespace selvio
