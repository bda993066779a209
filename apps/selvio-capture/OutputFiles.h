// The results as files.
#pragma once

#include <SelvioFacialCapture/base/Error.h>

#include <filesystem>
#include <optional>
#include <string_view>

namespace selvio::app {

/// Makes the directory, with its parents, and proves that files can be written into it.
[[nodiscard]] std::optional<Error> prepareOutputDirectory(const std::filesystem::path& directory);

/// Writes a whole file: it appears under its name complete, on disk, or not at all. A file of that name is replaced.
[[nodiscard]] std::optional<Error> writeFileAtomically(const std::filesystem::path& path, std::string_view bytes);

}  // namespace selvio::app
