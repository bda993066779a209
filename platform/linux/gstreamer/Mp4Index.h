// Where the index of an MP4 file stands.
#pragma once

#include <SelvioFacialCapture/base/Error.h>

#include <filesystem>
#include <optional>

namespace selvio {

/// Moves the index ("moov") of a finished MP4 file from its end to before the media data, so that a player can start
/// before it has all of the file. In place: no second file and no more disk space. A file whose index stands in front
/// already, or whose chunk offsets (32 bits) would overflow, stays as it is. After an error the file is not usable.
[[nodiscard]] std::optional<Error> moveIndexToFront(const std::filesystem::path& file);

}  // namespace selvio
