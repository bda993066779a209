// What a Linux device and its screen say of themselves.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/platform/Device.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <string>

namespace selvio {

class SELVIO_EXPORT LinuxDevice final : public Device {
public:
    /// Returns how the device is held; called on the thread that asks the device.
    using OrientationProvider = std::function<DeviceOrientation()>;

    /// Without a provider the device is always held in portrait. The system's version is read now, from the files of
    /// the system whose root directory is `root`.
    explicit LinuxDevice(OrientationProvider orientation = {}, const std::filesystem::path& root = "/");

    /// The distribution's: VERSION_ID of os-release, on Debian with the point release ("12.11"). Empty where there is
    /// none, as on distributions that roll.
    [[nodiscard]] std::string systemVersion() const override { return systemVersion_; }
    /// "Linux".
    [[nodiscard]] std::string model() const override { return "Linux"; }
    /// As `uname -m`; empty if the system does not say.
    [[nodiscard]] std::string machineName() const override;
    [[nodiscard]] DeviceOrientation orientation() const override;

private:
    const OrientationProvider orientation_;
    const std::string systemVersion_;
};

/// A portrait screen, whose size the host sets, in points. Any thread.
class SELVIO_EXPORT LinuxScreen final : public Screen {
public:
    static constexpr Size kDefaultSize{1080, 1920};

    /// A size that is not finite and positive is logged, and `kDefaultSize` taken.
    explicit LinuxScreen(Size bounds = kDefaultSize);

    [[nodiscard]] Size bounds() const override { return mutex_.get(bounds_); }
    /// Takes effect for analyzers and views made afterwards, and for the next cover of a camera's view. A size that is
    /// not finite and positive is logged and ignored.
    void setBounds(Size bounds);

    /// Portrait until set.
    [[nodiscard]] InterfaceOrientation statusBarOrientation() const override { return statusBarOrientation_; }
    void setStatusBarOrientation(InterfaceOrientation orientation) { statusBarOrientation_ = orientation; }

private:
    mutable MemberMutex mutex_;
    Size bounds_ = kDefaultSize;  // guarded by mutex_
    std::atomic<InterfaceOrientation> statusBarOrientation_{InterfaceOrientation::Portrait};
};

}  // namespace selvio
