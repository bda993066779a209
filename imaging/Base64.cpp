#include <SelvioFacialCapture/imaging/Base64.h>

#include <array>
#include <cstddef>
#include <cstring>

namespace selvio::base64 {
namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// The two characters of every 12 bits, so that three bytes take two look-ups.
constexpr auto kPairs = [] {
    std::array<char, 4096 * 2> pairs{};
    for (std::size_t i = 0; i < 4096; ++i) {
        pairs[2 * i] = kAlphabet[i >> 6];
        pairs[2 * i + 1] = kAlphabet[i & 63];
    }
    return pairs;
}();

constexpr std::uint8_t kNotInAlphabet = 255;

constexpr auto kValues = [] {
    std::array<std::uint8_t, 256> values{};
    values.fill(kNotInAlphabet);
    for (std::size_t i = 0; i < kAlphabet.size(); ++i)
        values[static_cast<std::uint8_t>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
    return values;
}();

}  // namespace

std::string encode(std::span<const std::uint8_t> bytes) {
    std::string text((bytes.size() + 2) / 3 * 4, '=');
    const std::uint8_t* in = bytes.data();
    char* out = text.data();
    std::size_t left = bytes.size();
    for (; left >= 3; left -= 3, in += 3, out += 4) {
        const std::uint32_t bits =
            static_cast<std::uint32_t>(in[0]) << 16 | static_cast<std::uint32_t>(in[1]) << 8 | in[2];
        std::memcpy(out, &kPairs[(bits >> 12) * 2], 2);
        std::memcpy(out + 2, &kPairs[(bits & 0xfff) * 2], 2);
    }
    if (left > 0) {
        const std::uint32_t bits =
            static_cast<std::uint32_t>(in[0]) << 16 | (left == 2 ? static_cast<std::uint32_t>(in[1]) << 8 : 0);
        std::memcpy(out, &kPairs[(bits >> 12) * 2], 2);
        if (left == 2) out[2] = kAlphabet[bits >> 6 & 63];
    }
    return text;
}

std::optional<std::vector<std::uint8_t>> decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    while (padding < 2 && !text.empty() && text.back() == '=') {
        text.remove_suffix(1);
        ++padding;
    }
    std::vector<std::uint8_t> bytes;
    bytes.reserve(text.size() / 4 * 3 + 2);
    std::uint32_t bits = 0;
    unsigned count = 0;  // bits not yet written
    for (const char character : text) {
        const std::uint8_t value = kValues[static_cast<std::uint8_t>(character)];
        if (value == kNotInAlphabet) return std::nullopt;
        bits = (bits << 6 | value) & 0xffff;
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes.push_back(static_cast<std::uint8_t>(bits >> count));
        }
    }
    if ((bits & ((1u << count) - 1)) != 0) return std::nullopt;
    return bytes;
}

}  // namespace selvio::base64
