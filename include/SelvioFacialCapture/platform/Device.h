// Ports: what the device and its screen say of themselves. Any thread.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/imaging/Geometry.h>

#include <cstdint>
#include <string>

namespace selvio {

/// How the device is held. Other values pass through.
enum class DeviceOrientation : std::int64_t {
    Unknown = 0,
    Portrait = 1,
    PortraitUpsideDown = 2,
    LandscapeLeft = 3,
    LandscapeRight = 4,
    FaceUp = 5,
    FaceDown = 6,
};

/// How the interface is turned. Other values pass through.
enum class InterfaceOrientation : std::int64_t {
    Unknown = 0,
    Portrait = 1,
    PortraitUpsideDown = 2,
    LandscapeRight = 3,
    LandscapeLeft = 4,
};

class SELVIO_EXPORT Device {
public:
    virtual ~Device() = default;
    /// The version of the operating system, a dotted number; empty if the system does not say.
    [[nodiscard]] virtual std::string systemVersion() const = 0;
    /// The generic name of the device family.
    [[nodiscard]] virtual std::string model() const = 0;
    /// The hardware identifier: the `machine` field of `uname`.
    [[nodiscard]] virtual std::string machineName() const = 0;
    [[nodiscard]] virtual DeviceOrientation orientation() const = 0;
};

class SELVIO_EXPORT Screen {
public:
    virtual ~Screen() = default;
    /// Width and height in points.
    [[nodiscard]] virtual Size bounds() const = 0;
    [[nodiscard]] virtual InterfaceOrientation statusBarOrientation() const = 0;
};

}  // namespace selvio
