#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/linux/Device.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <fstream>
#include <string_view>
#include <vector>

namespace selvio {
namespace {

namespace fs = std::filesystem;

std::string firstLine(const fs::path& path) {
    std::string line;
    std::ifstream file(path);
    std::getline(file, line);
    return line;
}

/// "1920x1080", perhaps with a letter behind it.
std::optional<Size> parsedMode(std::string_view mode) {
    const char* const end = mode.data() + mode.size();
    int width = 0;
    int height = 0;
    const auto [cross, widthError] = std::from_chars(mode.data(), end, width);
    if (widthError != std::errc() || cross == end || *cross != 'x') return std::nullopt;
    const auto [rest, heightError] = std::from_chars(cross + 1, end, height);
    if (heightError != std::errc() || width < 1 || height < 1) return std::nullopt;
    return Size{static_cast<double>(std::min(width, height)), static_cast<double>(std::max(width, height))};
}

bool isBuiltIn(const std::string& connector) {
    return std::ranges::any_of(std::to_array<const char*>({"-eDP-", "-DSI-", "-LVDS-"}),
                               [&](const char* kind) { return connector.find(kind) != std::string::npos; });
}

}  // namespace

std::optional<Size> connectedDisplaySize(const fs::path& displays) {
    std::vector<std::string> connectors;
    std::error_code error;
    for (fs::directory_iterator it(displays, error), end; !error && it != end; it.increment(error))
        connectors.push_back(it->path().filename());
    std::ranges::sort(connectors, [](const std::string& a, const std::string& b) {
        return isBuiltIn(a) != isBuiltIn(b) ? isBuiltIn(a) : a < b;
    });
    for (const std::string& connector : connectors) {
        if (firstLine(displays / connector / "status") != "connected") continue;
        if (const auto size = parsedMode(firstLine(displays / connector / "modes"))) return size;
    }
    return std::nullopt;
}

LinuxScreen::LinuxScreen(const fs::path& displays) : bounds_(connectedDisplaySize(displays).value_or(kDefaultSize)) {}

LinuxScreen::LinuxScreen(Size bounds) {
    setBounds(bounds);
}

Size LinuxScreen::bounds() const {
    const std::lock_guard lock(mutex_);
    return bounds_;
}

void LinuxScreen::setBounds(Size bounds) {
    if (!std::isfinite(bounds.width) || !std::isfinite(bounds.height) || bounds.width <= 0 || bounds.height <= 0) {
        log("The screen's size must be positive: ignored");
        return;
    }
    const std::lock_guard lock(mutex_);
    bounds_ = bounds;
}

InterfaceOrientation LinuxScreen::statusBarOrientation() const {
    return statusBarOrientation_.load();
}

void LinuxScreen::setStatusBarOrientation(InterfaceOrientation orientation) {
    statusBarOrientation_.store(orientation);
}

}  // namespace selvio
