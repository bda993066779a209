#include <SelvioFacialCapture/linux/Device.h>

#include <sys/utsname.h>

#include <utility>

namespace selvio {

LinuxDevice::LinuxDevice(OrientationProvider orientation) : orientation_(std::move(orientation)) {}

std::string LinuxDevice::systemVersion() const {
    return "13.0";
}

std::string LinuxDevice::model() const {
    return "Linux";
}

std::string LinuxDevice::machineName() const {
    utsname name{};
    return uname(&name) == 0 ? name.machine : "";
}

DeviceOrientation LinuxDevice::orientation() const {
    return orientation_ ? orientation_() : DeviceOrientation::Portrait;
}

}  // namespace selvio
