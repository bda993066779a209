// The device's rotation and orientation on Linux.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/platform/Device.h>
#include <SelvioFacialCapture/platform/MotionManager.h>

#include <filesystem>
#include <memory>
#include <string>

namespace selvio {

struct SensorOptions {
    /// Where the kernel shows its Industrial I/O devices.
    std::filesystem::path iioDirectory = "/sys/bus/iio/devices";
    /// The D-Bus address on which iio-sensor-proxy is looked for; empty: the system bus.
    std::string busAddress;
};

/// Readings of the first gyroscope (`in_anglvel_{x,y,z}_raw` times a shared `in_anglvel_scale` or one for each axis,
/// offsets included), in radians per second, read on a thread that runs only while updates do. A reading that fails is
/// handed on as an error; a device without a gyroscope never calls the handler. The interval lies within 1 ms and 10 s;
/// 10 ms until set.
[[nodiscard]] SELVIO_EXPORT std::shared_ptr<MotionManager> makeIioMotionManager(SensorOptions options = {});

/// How the device is held, as iio-sensor-proxy says, which is asked as long as the object lives.
class SELVIO_EXPORT OrientationSensor {
public:
    virtual ~OrientationSensor() = default;
    /// Portrait where there is no accelerometer or no proxy; what was last said where it says "undefined". Any thread,
    /// never waits.
    [[nodiscard]] virtual DeviceOrientation orientation() const = 0;
};

/// Never null. Looks for the proxy on a thread of its own; until it has replied, and when it ends, the device is in
/// portrait.
[[nodiscard]] SELVIO_EXPORT std::shared_ptr<OrientationSensor> makeOrientationSensor(SensorOptions options = {});

}  // namespace selvio
