// Cameras and microphones: where they are found and how they are set.
#pragma once

#include "platform/linux/gstreamer/CaptureRules.h"
#include "platform/linux/gstreamer/GstSupport.h"

#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/linux/Capture.h>

#include <functional>

namespace selvio {

/// What discovery learns of a device.
struct DeviceDescription {
    std::string id;
    std::string name;
    MediaType mediaType = MediaType::Video;
    CaptureDevicePosition position = CaptureDevicePosition::Unspecified;
    std::vector<rules::CameraMode> modes{};  ///< of a camera
    std::filesystem::path node{};            ///< device node, empty if it has none of its own
    bool playsFile = false;        ///< its frames come as they lie in a file, and it chooses their format itself
    bool isDefault = false;        ///< the person's choice among the system's devices
    bool temporaryMemory = false;  ///< frames must not be held on to
    /// A new source element (floating), or why there is none.
    std::function<Expected<GstElement*>()> makeSource{};
};

/// The cameras (best first) or microphones that there are now.
[[nodiscard]] std::vector<DeviceDescription> findDevices(const CaptureOptions& options, MediaType mediaType);

/// Whether camera nodes exist in the directory, and whether one may be opened.
enum class NodeAccess { None, Refused, Granted };
[[nodiscard]] NodeAccess cameraNodeAccess(const std::filesystem::path& deviceDirectory);

/// The caps that pick a mode right behind the source.
[[nodiscard]] std::string capsOf(const rules::CameraMode& mode);

class GstCaptureDevice final : public CaptureDevice {
public:
    GstCaptureDevice(DeviceDescription description, const std::filesystem::path& ledDirectory);

    [[nodiscard]] std::string uniqueId() const override { return description_.id; }
    [[nodiscard]] std::string localizedName() const override { return description_.name; }
    [[nodiscard]] MediaType mediaType() const override { return description_.mediaType; }
    [[nodiscard]] CaptureDevicePosition position() const override { return description_.position; }
    [[nodiscard]] std::vector<CaptureDeviceFormat> formats() const override { return formats_; }
    [[nodiscard]] std::optional<CaptureDeviceFormat> activeFormat() const override { return mutex_.get(activeFormat_); }
    // Every setting is atomic by itself.
    std::optional<Error> lockForConfiguration() override { return std::nullopt; }
    void unlockForConfiguration() override {}
    void setActiveFormat(const CaptureDeviceFormat& format) override;
    [[nodiscard]] bool isFocusPointOfInterestSupported() const override { return false; }
    void setFocusPointOfInterest(Point) override {}
    [[nodiscard]] bool isFocusModeSupported(FocusMode mode) const override;
    void setFocusMode(FocusMode mode) override;
    [[nodiscard]] bool hasTorch() const override { return !led_.empty(); }
    void setTorchMode(TorchMode mode) override;

    [[nodiscard]] const DeviceDescription& description() const { return description_; }

private:
    const DeviceDescription description_;
    const std::vector<CaptureDeviceFormat> formats_;
    const std::filesystem::path led_;  ///< directory of the LED; empty without a torch
    mutable MemberMutex mutex_;
    std::optional<CaptureDeviceFormat> activeFormat_;  // guarded by mutex_
};

}  // namespace selvio
