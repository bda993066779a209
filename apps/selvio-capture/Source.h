// Where the frames of a capture come from.
#pragma once

#include "CommandLine.h"

#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/platform/Platform.h>

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace selvio::app {

struct Source {
    std::string description;  ///< for the person
    CaptureDevicePosition position = CaptureDevicePosition::Front;
};

struct SourceFailure {
    ExitCode code = ExitCode::NoCamera;
    std::string message;
};

/// Fits the wanted source into the platform: its capture system then offers exactly one camera, the chosen one. Files
/// are read here.
[[nodiscard]] std::variant<Source, SourceFailure> useSource(Platform& platform, const RunOptions& options);

/// Every camera of a system, wherever it looks; empty for a null system.
[[nodiscard]] std::vector<std::shared_ptr<CaptureDevice>> camerasOf(const std::shared_ptr<CaptureSystem>& system);
/// The capture system of the machine's own cameras; null where there is none. `hevc`: they recommend H.265 for a
/// recording where that can be written.
[[nodiscard]] std::shared_ptr<CaptureSystem> machineCaptureSystem(bool hevc = false);
/// Fits the simulated cameras into the platform; a failure names the file.
[[nodiscard]] std::optional<Error> useSimulated(Platform& platform, const std::filesystem::path& photo,
                                                const std::filesystem::path& script,
                                                const std::string& videoCodec = kVideoCodecTypeH264);

}  // namespace selvio::app
