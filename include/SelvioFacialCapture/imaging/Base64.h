// Base64 text (RFC 4648, standard alphabet).
#pragma once

#include <SelvioFacialCapture/base/Export.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace selvio::base64 {

/// Text with padding and without line breaks.
[[nodiscard]] SELVIO_EXPORT std::string encode(std::span<const std::uint8_t> bytes);

/// The bytes of such a text. Nothing for any other character, wrong padding, a wrong length or stray bits at the end.
[[nodiscard]] SELVIO_EXPORT std::optional<std::vector<std::uint8_t>> decode(std::string_view text);

}  // namespace selvio::base64
