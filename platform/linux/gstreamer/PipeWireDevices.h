// What a PipeWire server offers. It is asked directly: GStreamer's own device provider for PipeWire can crash when a
// device goes away meanwhile.
#pragma once

#include "platform/linux/gstreamer/CaptureRules.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace selvio {

/// A camera or microphone on a PipeWire server.
struct PipeWireNode {
    std::string serial;                      ///< the server's own number for it; another one each time it is plugged in
    std::string name;                        ///< stays the same from one time to the next
    std::string description;                 ///< for people
    std::string location;                    ///< "front", "back" or empty
    std::filesystem::path node;              ///< device node behind it, if there is one
    std::vector<rules::CameraMode> modes{};  ///< of a camera, without those that need memory of a graphics card
    bool isDefault = false;                  ///< the person's choice
};

/// The cameras or microphones that there are now, in the server's order; nothing where no server runs. A server that
/// does not answer within two seconds counts as none and is logged. On the calling thread; it holds no connection when
/// it returns.
[[nodiscard]] std::optional<std::vector<PipeWireNode>> findPipeWireNodes(MediaType mediaType);

}  // namespace selvio
