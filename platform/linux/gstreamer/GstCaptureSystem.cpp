#include "platform/linux/gstreamer/GstCaptureSession.h"
#include "platform/linux/gstreamer/GstDevices.h"
#include "platform/linux/gstreamer/GstOutputs.h"

namespace selvio {
namespace {

class GstCaptureSystem final : public CaptureSystem {
public:
    explicit GstCaptureSystem(CaptureOptions options)
        : shared_(std::make_shared<const CaptureOptions>(std::move(options))) {}

    std::shared_ptr<CaptureDeviceDiscoverySession> discoverDevices(const std::vector<std::string>&, MediaType mediaType,
                                                                   CaptureDevicePosition position) override {
        auto discovery = std::make_shared<CaptureDeviceDiscoverySession>();
        const auto found = findDevices(options_, mediaType);
        for (const int match : {2, 1}) {
            for (const DeviceDescription& description : found) {
                if (rules::positionMatch(description.position, position) != match) continue;
                discovery->devices.push_back(std::make_shared<GstCaptureDevice>(description, options_.ledDirectory));
            }
        }
        return discovery;
    }

    std::shared_ptr<CaptureDevice> defaultDevice(MediaType mediaType) override {
        const auto devices = discoverDevices({}, mediaType, CaptureDevicePosition::Unspecified)->devices;
        return devices.empty() ? nullptr : devices.front();
    }

    Expected<std::shared_ptr<CaptureDeviceInput>> makeDeviceInput(
        const std::shared_ptr<CaptureDevice>& device) override {
        if (!std::dynamic_pointer_cast<GstCaptureDevice>(device))
            return Error{device ? "\"" + device->localizedName() + "\" is not a device of this system"
                                : "there is no device"};
        return std::shared_ptr<CaptureDeviceInput>(std::make_shared<DeviceInput>(device, shared_));
    }

    std::shared_ptr<CaptureSession> makeSession() override {
        return std::make_shared<GstCaptureSession>(options_, shared_);
    }
    std::shared_ptr<VideoDataOutput> makeVideoDataOutput() override {
        return std::make_shared<GstVideoDataOutput>(shared_, options_.recording);
    }
    std::shared_ptr<AudioDataOutput> makeAudioDataOutput() override {
        return std::make_shared<QueuedAudioOutput>(shared_);
    }
    std::shared_ptr<MetadataOutput> makeMetadataOutput() override {
        return std::make_shared<GstMetadataOutput>(shared_);
    }

    AuthorizationStatus authorizationStatus(MediaType mediaType) override {
        if (mediaType == MediaType::Audio || !options_.systemDevices) return AuthorizationStatus::Authorized;
        if (cameraNodeAccess(options_.deviceDirectory) != NodeAccess::Refused) return AuthorizationStatus::Authorized;
        // A camera may still be offered through PipeWire, which opens the node in our stead.
        return findDevices(options_, MediaType::Video).empty() ? AuthorizationStatus::Denied
                                                               : AuthorizationStatus::Authorized;
    }

    void requestAccess(MediaType mediaType, std::function<void(bool granted)> completion) override {
        if (completion) completion(authorizationStatus(mediaType) == AuthorizationStatus::Authorized);
    }

private:
    const std::shared_ptr<const CaptureOptions> shared_;  // by which inputs, outputs and sessions know their system
    const CaptureOptions& options_ = *shared_;
};

}  // namespace

std::shared_ptr<CaptureSystem> makeGstCaptureSystem(CaptureOptions options) {
    return std::make_shared<GstCaptureSystem>(std::move(options));
}

}  // namespace selvio
