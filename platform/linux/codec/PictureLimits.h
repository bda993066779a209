// How large a picture file may claim to be before memory is taken for its pixels.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace selvio {

inline constexpr std::uint64_t kLongestPictureSide = 32767;
inline constexpr std::uint64_t kMostPicturePixels = std::uint64_t{1} << 28;

/// Why a picture of this size is refused; nothing if it is not.
inline std::optional<std::string> sizeProblem(std::uint64_t width, std::uint64_t height) {
    const std::string size = std::to_string(width) + " x " + std::to_string(height) + " pixels";
    if (width == 0 || height == 0) return "claims an empty picture of " + size;
    if (width > kLongestPictureSide || height > kLongestPictureSide || width * height > kMostPicturePixels) {
        return "claims " + size + "; the limit is " + std::to_string(kLongestPictureSide) + " a side and " +
               std::to_string(kMostPicturePixels) + " in all";
    }
    return std::nullopt;
}

/// Why a file of `fileBytes` cannot hold the picture that it claims, which takes at least `leastBytes`; nothing if it
/// can.
inline std::optional<std::string> lengthProblem(std::uint64_t fileBytes, std::uint64_t leastBytes, std::uint64_t width,
                                                std::uint64_t height) {
    if (fileBytes >= leastBytes) return std::nullopt;
    return "cut short: " + std::to_string(fileBytes) + " bytes cannot hold the " + std::to_string(width) + " x " +
           std::to_string(height) + " pixels that it claims";
}

}  // namespace selvio
