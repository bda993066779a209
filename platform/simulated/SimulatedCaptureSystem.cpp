#include <SelvioFacialCapture/base/Log.h>

#include <algorithm>

#include "platform/simulated/SimulatedSession.h"

namespace selvio {
namespace {

constexpr double kLowestFrameRate = 1.0;
constexpr double kHighestFrameRate = 240.0;

SimulatedCaptureOptions checked(SimulatedCaptureOptions options) {
    const double wanted = options.frameRate;
    options.frameRate = wanted >= kLowestFrameRate ? std::min(wanted, kHighestFrameRate) : kLowestFrameRate;
    if (options.frameRate != wanted)
        log("The simulated camera's frame rate " + std::to_string(wanted) + " is outside of 1 to 240");
    return options;
}

}  // namespace

struct SimulatedCaptureSystem::State {
    State(std::shared_ptr<SimulatedScene> scene, SimulatedCaptureOptions options)
        : control(std::make_shared<SimulatedControl>(std::move(scene), checked(std::move(options)))),
          back(std::make_shared<SimulatedDevice>(control, MediaType::Video, CaptureDevicePosition::Back)),
          front(std::make_shared<SimulatedDevice>(control, MediaType::Video, CaptureDevicePosition::Front)),
          microphone(std::make_shared<SimulatedDevice>(control, MediaType::Audio, CaptureDevicePosition::Unspecified)) {
    }

    const std::shared_ptr<SimulatedControl> control;
    const std::shared_ptr<SimulatedDevice> back;
    const std::shared_ptr<SimulatedDevice> front;
    const std::shared_ptr<SimulatedDevice> microphone;

    MemberMutex mutex;
    std::vector<std::weak_ptr<SimulatedSession>> sessions;         // guarded by mutex
    AuthorizationStatus camera = AuthorizationStatus::Authorized;  // guarded by mutex
    AuthorizationStatus sound = AuthorizationStatus::Authorized;   // guarded by mutex
    bool accessAnswer = true;                                      // guarded by mutex

    [[nodiscard]] AuthorizationStatus& statusOf(MediaType mediaType) {
        return mediaType == MediaType::Video ? camera : sound;
    }
};

SimulatedCaptureSystem::SimulatedCaptureSystem(std::shared_ptr<SimulatedScene> scene, SimulatedCaptureOptions options)
    : state_(std::make_shared<State>(std::move(scene), std::move(options))) {}

SimulatedCaptureSystem::~SimulatedCaptureSystem() = default;

const std::shared_ptr<SimulatedScene>& SimulatedCaptureSystem::scene() const {
    return state_->control->scene;
}

void SimulatedCaptureSystem::setFaults(SimulatedFaults faults) {
    state_->control->setFaults(faults);
}

SimulatedFaults SimulatedCaptureSystem::faults() const {
    return state_->control->faults();
}

void SimulatedCaptureSystem::setAuthorizationStatus(MediaType mediaType, AuthorizationStatus status) {
    state_->mutex.set(state_->statusOf(mediaType), status);
}

void SimulatedCaptureSystem::setAccessAnswer(bool granted) {
    state_->mutex.set(state_->accessAnswer, granted);
}

SimulatedDeviceState SimulatedCaptureSystem::deviceState(CaptureDevicePosition position) const {
    return (position == CaptureDevicePosition::Front ? state_->front : state_->back)->state();
}

void SimulatedCaptureSystem::deliverFrameAt(std::chrono::nanoseconds scriptTime) {
    if (state_->control->options.pacing != SimulatedPacing::Manual) {
        log("deliverFrameAt is for a simulated camera with manual pacing");
        return;
    }
    scene()->setTime(scriptTime);
    for (const auto& weak : state_->mutex.get(state_->sessions)) {
        if (const auto session = weak.lock()) session->tick(scene()->clockTime());
    }
}

std::size_t SimulatedCaptureSystem::pixelAllocations() const {
    return state_->control->pool->allocations();
}

std::shared_ptr<CaptureDeviceDiscoverySession> SimulatedCaptureSystem::discoverDevices(
    const std::vector<std::string>& deviceTypes, MediaType mediaType, CaptureDevicePosition position) {
    auto found = std::make_shared<CaptureDeviceDiscoverySession>();
    const SimulatedFaults faults = this->faults();
    if (mediaType == MediaType::Audio) {
        if (!faults.noMicrophone) found->devices.push_back(state_->microphone);
        return found;
    }
    const bool wanted = std::find(deviceTypes.begin(), deviceTypes.end(), kCaptureDeviceTypeBuiltInWideAngleCamera) !=
                        deviceTypes.end();
    if (!wanted || faults.noCamera || faults.deviceLost) return found;
    if (position != CaptureDevicePosition::Front) found->devices.push_back(state_->back);
    if (position != CaptureDevicePosition::Back) found->devices.push_back(state_->front);
    return found;
}

std::shared_ptr<CaptureDevice> SimulatedCaptureSystem::defaultDevice(MediaType mediaType) {
    const auto found =
        discoverDevices({kCaptureDeviceTypeBuiltInWideAngleCamera}, mediaType, CaptureDevicePosition::Unspecified);
    return found->devices.empty() ? nullptr : found->devices.front();
}

Expected<std::shared_ptr<CaptureDeviceInput>> SimulatedCaptureSystem::makeDeviceInput(
    const std::shared_ptr<CaptureDevice>& device) {
    const auto simulated = std::dynamic_pointer_cast<SimulatedDevice>(device);
    if (!simulated || !simulated->belongsTo(state_->control.get()))
        return Error{"The device is not one of this simulated capture system"};
    if (device->mediaType() == MediaType::Video && faults().deviceLost)
        return Error{device->localizedName() + " is disconnected"};
    if (authorizationStatus(device->mediaType()) != AuthorizationStatus::Authorized)
        return Error{"Access to " + device->localizedName() + " has not been granted"};
    return std::shared_ptr<CaptureDeviceInput>(std::make_shared<DeviceInput>(device, state_->control));
}

std::shared_ptr<CaptureSession> SimulatedCaptureSystem::makeSession() {
    auto session = std::make_shared<SimulatedSession>(state_->control);
    const std::lock_guard lock(state_->mutex);
    std::erase_if(state_->sessions, [](const auto& weak) { return weak.expired(); });
    state_->sessions.push_back(session);
    return session;
}

std::shared_ptr<VideoDataOutput> SimulatedCaptureSystem::makeVideoDataOutput() {
    return std::make_shared<SimulatedVideoDataOutput>(state_->control);
}

std::shared_ptr<AudioDataOutput> SimulatedCaptureSystem::makeAudioDataOutput() {
    return std::make_shared<QueuedAudioOutput>(state_->control);
}

std::shared_ptr<MetadataOutput> SimulatedCaptureSystem::makeMetadataOutput() {
    return std::make_shared<QueuedMetadataOutput>(state_->control);
}

AuthorizationStatus SimulatedCaptureSystem::authorizationStatus(MediaType mediaType) {
    return state_->mutex.get(state_->statusOf(mediaType));
}

void SimulatedCaptureSystem::requestAccess(MediaType mediaType, std::function<void(bool granted)> completion) {
    bool granted = false;
    {
        const std::lock_guard lock(state_->mutex);
        AuthorizationStatus& status = state_->statusOf(mediaType);
        if (status == AuthorizationStatus::NotDetermined)
            status = state_->accessAnswer ? AuthorizationStatus::Authorized : AuthorizationStatus::Denied;
        granted = status == AuthorizationStatus::Authorized;
    }
    if (!completion) return;
    if (const auto& queue = state_->control->options.permissionQueue) {
        queue->async([completion = std::move(completion), granted] { completion(granted); });
    } else {
        completion(granted);
    }
}

}  // namespace selvio
