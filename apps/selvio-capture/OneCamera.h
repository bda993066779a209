// A capture system that offers one of another system's cameras.
#pragma once

#include <SelvioFacialCapture/platform/Capture.h>

#include <utility>

namespace selvio::app {

/// Every camera of a system, wherever it looks; empty for a null system.
[[nodiscard]] inline std::vector<std::shared_ptr<CaptureDevice>> camerasOf(
    const std::shared_ptr<CaptureSystem>& system) {
    if (!system) return {};
    const auto found = system->discoverDevices({kCaptureDeviceTypeBuiltInWideAngleCamera}, MediaType::Video,
                                               CaptureDevicePosition::Unspecified);
    return found ? found->devices : std::vector<std::shared_ptr<CaptureDevice>>{};
}

/// The component takes the first camera that a search finds. Here each search finds the one that the person chose. All
/// else is the other system's.
class OneCamera final : public CaptureSystem {
public:
    OneCamera(std::shared_ptr<CaptureSystem> system, std::shared_ptr<CaptureDevice> camera)
        : system_(std::move(system)), camera_(std::move(camera)) {}

    std::shared_ptr<CaptureDeviceDiscoverySession> discoverDevices(const std::vector<std::string>& deviceTypes,
                                                                   MediaType mediaType,
                                                                   CaptureDevicePosition position) override {
        if (mediaType != MediaType::Video) return system_->discoverDevices(deviceTypes, mediaType, position);
        return std::make_shared<CaptureDeviceDiscoverySession>(CaptureDeviceDiscoverySession{{camera_}});
    }
    std::shared_ptr<CaptureDevice> defaultDevice(MediaType mediaType) override {
        return mediaType == MediaType::Video ? camera_ : system_->defaultDevice(mediaType);
    }
    Expected<std::shared_ptr<CaptureDeviceInput>> makeDeviceInput(
        const std::shared_ptr<CaptureDevice>& device) override {
        return system_->makeDeviceInput(device);
    }
    std::shared_ptr<CaptureSession> makeSession() override { return system_->makeSession(); }
    std::shared_ptr<VideoDataOutput> makeVideoDataOutput() override { return system_->makeVideoDataOutput(); }
    std::shared_ptr<AudioDataOutput> makeAudioDataOutput() override { return system_->makeAudioDataOutput(); }
    std::shared_ptr<MetadataOutput> makeMetadataOutput() override { return system_->makeMetadataOutput(); }
    AuthorizationStatus authorizationStatus(MediaType mediaType) override {
        return system_->authorizationStatus(mediaType);
    }
    void requestAccess(MediaType mediaType, std::function<void(bool granted)> completion) override {
        system_->requestAccess(mediaType, std::move(completion));
    }

private:
    const std::shared_ptr<CaptureSystem> system_;
    const std::shared_ptr<CaptureDevice> camera_;
};

}  // namespace selvio::app
