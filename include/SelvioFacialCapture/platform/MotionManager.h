// Port: the device's rotation.
#pragma once

#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/base/Queue.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace selvio {

/// Radians per second about the device's axes.
struct RotationRate {
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;
};

struct DeviceMotion {
    RotationRate rotationRate;
};

/// A feed of motion readings. Every operation may be called on any thread.
class SELVIO_EXPORT MotionManager {
public:
    using Handler = std::function<void(const DeviceMotion& motion, const std::optional<Error>& error)>;

    virtual ~MotionManager() = default;
    virtual void setDeviceMotionUpdateInterval(std::chrono::nanoseconds interval) = 0;
    /// Calls `handler` on `queue` once an interval until stopped; a second start replaces the first. A device without a
    /// sensor never calls it.
    virtual void startDeviceMotionUpdates(std::shared_ptr<Queue> queue, Handler handler) = 0;
    /// Starts no further call of the handler; one already submitted to the queue may still run.
    virtual void stopDeviceMotionUpdates() = 0;
};

}  // namespace selvio
