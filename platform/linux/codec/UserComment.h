// The text of an EXIF UserComment field: eight bytes of character code, then the text in that code.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace selvio {

/// The field for a UTF-8 text: "ASCII" where the text is, else "UNICODE" with UTF-16 in the given byte order;
/// ill-formed sequences become U+FFFD.
[[nodiscard]] std::vector<std::uint8_t> encodeUserComment(std::string_view text, bool bigEndian);

/// The text in UTF-8, without padding NULs at its end. Unicode follows its byte order mark, else the order given,
/// unless the text makes Latin letters in the other order only (some writers ignore the segment's). An undefined or
/// missing character code is read as UTF-8 if it is that, else as Latin-1. Nothing for JIS.
[[nodiscard]] std::optional<std::string> decodeUserComment(std::span<const std::uint8_t> field, bool bigEndian);

}  // namespace selvio
