// The services that this program gives the component.
#pragma once

#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/platform/Platform.h>

#include <filesystem>
#include <optional>

namespace selvio::app {

/// The Linux adapters, and a portrait screen of 1080 x 1920 points: the program shows no more than that of a frame, so
/// that the same face is judged alike on every machine. Loading of the vision models begins.
[[nodiscard]] Platform makeHostPlatform();

/// The same services one by one, for commands that need no more.
[[nodiscard]] std::shared_ptr<const ImageCodec> makeImageCodec();
[[nodiscard]] std::shared_ptr<const ImageLoader> makeImageLoader();
[[nodiscard]] std::shared_ptr<FileManager> makeFileManager();

/// Waits until the vision models are loaded; an error names the file and the package that installs it.
[[nodiscard]] std::optional<Error> waitForModels();

/// The directory with the sample photograph and scripts, beside the program as it was built or installed.
[[nodiscard]] std::filesystem::path samplesDirectory();

}  // namespace selvio::app
