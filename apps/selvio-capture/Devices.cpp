// `devices`: what there is to capture with.
#include "Commands.h"
#include "RunOutput.h"
#include "Source.h"
#include "Texts.h"

#include <SelvioFacialCapture/linux/Codec.h>

#include <iostream>
#include <nlohmann/json.hpp>

namespace selvio::app {
namespace {

struct Listed {
    std::string source;  ///< as `--source` takes it; empty for what it does not take
    std::shared_ptr<CaptureDevice> device;
};

std::vector<Listed> listDevices() {
    std::vector<Listed> listed;
    const auto add = [&listed](const std::shared_ptr<CaptureSystem>& system, bool simulated) {
        if (!system) return;
        for (const auto& camera : camerasOf(system)) {
            const bool usable = !simulated || camera->position() == CaptureDevicePosition::Front;
            listed.push_back({!usable ? "" : simulated ? "simulated" : "camera:" + camera->localizedName(), camera});
        }
        const auto microphones = system->discoverDevices({}, MediaType::Audio, CaptureDevicePosition::Unspecified);
        for (const auto& microphone : microphones->devices) listed.push_back({"", microphone});
    };
    add(machineCaptureSystem(), false);
    auto platform = makePortablePlatform();
    platform.imageLoader = std::make_shared<JpegPngImageLoader>();
    if (const auto error = useSimulated(platform, {}, {})) complain(error->localizedDescription);
    add(platform.captureSystem, true);
    return listed;
}

/// Four-character codes as text; ARGB's code is the number 32.
std::string nameOf(PixelFormat format) {
    if (format == kPixelFormat32ARGB) return "ARGB";
    std::string name;
    for (int shift = 24; shift >= 0; shift -= 8) name += static_cast<char>((format >> shift) & 0xff);
    return name;
}

const char* nameOf(CaptureDevicePosition position) {
    if (position == CaptureDevicePosition::Unspecified) return "unspecified";
    return position == CaptureDevicePosition::Front ? "front" : "back";
}

nlohmann::ordered_json jsonOf(const Listed& entry) {
    const auto& device = *entry.device;
    nlohmann::ordered_json line = {{"kind", device.mediaType() == MediaType::Video ? "camera" : "microphone"},
                                   {"name", device.localizedName()},
                                   {"id", device.uniqueId()}};
    if (device.mediaType() != MediaType::Video) return line;
    line["source"] = entry.source.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(entry.source);
    line["position"] = nameOf(device.position());
    line["formats"] = nlohmann::ordered_json::array();
    for (const auto& format : device.formats()) {
        const auto& description = format.formatDescription;
        line["formats"].push_back({{"format", nameOf(description.mediaSubType)},
                                   {"width", description.width},
                                   {"height", description.height},
                                   {"maxFrameRate", format.maxFrameRate}});
    }
    return line;
}

void printText(const Listed& entry) {
    const auto& device = *entry.device;
    const bool camera = device.mediaType() == MediaType::Video;
    std::cout << (camera ? "camera      " : "microphone  ") << printable(device.localizedName());
    if (!entry.source.empty()) std::cout << "  (--source '" << entry.source << "')";
    std::cout << '\n';
    for (const auto& format : device.formats()) {
        const auto& description = format.formatDescription;
        std::cout << "    " << nameOf(description.mediaSubType) << ' ' << description.width << 'x' << description.height
                  << " at up to " << format.maxFrameRate << " frames a second\n";
    }
}

}  // namespace

ExitCode perform(const DevicesOptions& options) {
    for (const auto& entry : listDevices()) {
        if (options.json) {
            std::cout << compact(jsonOf(entry)) << '\n';
        } else {
            printText(entry);
        }
    }
    return ExitCode::Success;
}

}  // namespace selvio::app
