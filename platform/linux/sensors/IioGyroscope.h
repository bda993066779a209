// A gyroscope in the kernel's Industrial I/O tree.
#pragma once

#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/platform/MotionManager.h>

#include <array>
#include <filesystem>
#include <optional>
#include <string>

namespace selvio {

/// Nine numbers of a mounting matrix, rows separated by ";" and columns by ","; nothing if the text is not one.
[[nodiscard]] std::optional<std::array<double, 9>> parseMountMatrix(const std::string& text);

/// One gyroscope. Its constants are read once, its rates each time.
class IioGyroscope {
public:
    /// The first gyroscope in the directory, by name; nothing if there is none whose rates and scales can be read.
    static std::optional<IioGyroscope> find(const std::filesystem::path& iioDirectory);

    /// About the device's axes, in radians per second.
    [[nodiscard]] Expected<RotationRate> read() const;

private:
    struct Axis {
        std::filesystem::path raw;
        double scale = 1.0;
        double offset = 0.0;
    };
    IioGyroscope() = default;

    std::array<Axis, 3> axes_;
    std::array<double, 9> mount_{1, 0, 0, 0, 1, 0, 0, 0, 1};
};

}  // namespace selvio
