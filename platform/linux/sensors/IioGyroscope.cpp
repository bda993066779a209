#include "platform/linux/sensors/IioGyroscope.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>
#include <vector>

namespace selvio {
namespace {

namespace fs = std::filesystem;

std::optional<double> numberIn(const fs::path& file) {
    double number = 0.0;
    std::ifstream stream(file);
    if (!(stream >> number) || !std::isfinite(number)) return std::nullopt;
    return number;
}

// A value of one axis, or the one that all axes share.
std::optional<double> constantOf(const fs::path& device, const std::string& axis, const std::string& what) {
    if (const auto own = numberIn(device / ("in_anglvel_" + axis + "_" + what))) return own;
    return numberIn(device / ("in_anglvel_" + what));
}

}  // namespace

std::optional<std::array<double, 9>> parseMountMatrix(const std::string& text) {
    std::string plain = text;
    std::replace_if(
        plain.begin(), plain.end(), [](char c) { return c == ',' || c == ';'; }, ' ');
    std::istringstream stream(plain);
    std::array<double, 9> matrix{};
    for (double& number : matrix) {
        if (!(stream >> number)) return std::nullopt;
    }
    std::string rest;
    if (stream >> rest) return std::nullopt;
    return matrix;
}

std::optional<IioGyroscope> IioGyroscope::find(const fs::path& iioDirectory) {
    std::vector<fs::path> devices;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(iioDirectory, ignored)) devices.push_back(entry.path());
    std::sort(devices.begin(), devices.end());
    for (const fs::path& device : devices) {
        IioGyroscope gyroscope;
        bool complete = true;
        for (std::size_t i = 0; i < 3; ++i) {
            const std::string axis(1, "xyz"[i]);
            const auto scale = constantOf(device, axis, "scale");
            gyroscope.axes_[i] = {device / ("in_anglvel_" + axis + "_raw"), scale.value_or(0.0),
                                  constantOf(device, axis, "offset").value_or(0.0)};
            complete = complete && scale && numberIn(gyroscope.axes_[i].raw);
        }
        if (!complete) continue;
        for (const char* const name : {"in_mount_matrix", "mount_matrix", "in_anglvel_mount_matrix"}) {
            std::ifstream stream(device / name);
            std::string line;
            if (!std::getline(stream, line)) continue;
            if (const auto matrix = parseMountMatrix(line)) gyroscope.mount_ = *matrix;
        }
        return gyroscope;
    }
    return std::nullopt;
}

Expected<RotationRate> IioGyroscope::read() const {
    std::array<double, 3> rate{};
    for (std::size_t i = 0; i < 3; ++i) {
        const auto raw = numberIn(axes_[i].raw);
        if (!raw) return Error{"could not read \"" + axes_[i].raw.string() + "\""};
        rate[i] = (*raw + axes_[i].offset) * axes_[i].scale;
    }
    const auto row = [&](std::size_t i) {
        return mount_[i * 3] * rate[0] + mount_[i * 3 + 1] * rate[1] + mount_[i * 3 + 2] * rate[2];
    };
    return RotationRate{row(0), row(1), row(2)};
}

}  // namespace selvio
