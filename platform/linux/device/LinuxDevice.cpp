#include <SelvioFacialCapture/linux/Device.h>

#include <sys/utsname.h>

#include <fstream>
#include <string_view>
#include <utility>

namespace selvio {
namespace {

namespace fs = std::filesystem;

std::string_view withoutQuotes(std::string_view value) {
    const bool quoted =
        value.size() > 1 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front();
    return quoted ? value.substr(1, value.size() - 2) : value;
}

std::string versionOf(const fs::path& root) {
    constexpr std::string_view kVersion = "VERSION_ID=";
    std::ifstream release(root / "etc/os-release");
    if (!release) release.open(root / "usr/lib/os-release");
    std::string version;
    for (std::string line; std::getline(release, line);) {
        if (line.starts_with(kVersion)) version = withoutQuotes(std::string_view(line).substr(kVersion.size()));
    }
    // Debian's os-release leaves the point release to this file. Derived systems keep the file of the Debian that they
    // come from, so it counts only when it has the same version.
    std::string point;
    std::getline(std::ifstream(root / "etc/debian_version"), point);
    return !version.empty() && point.starts_with(version + ".") ? point : version;
}

}  // namespace

LinuxDevice::LinuxDevice(OrientationProvider orientation, const fs::path& root)
    : orientation_(std::move(orientation)), systemVersion_(versionOf(root)) {}

std::string LinuxDevice::machineName() const {
    utsname name{};
    return uname(&name) == 0 ? name.machine : "";
}

DeviceOrientation LinuxDevice::orientation() const {
    return orientation_ ? orientation_() : DeviceOrientation::Portrait;
}

}  // namespace selvio
