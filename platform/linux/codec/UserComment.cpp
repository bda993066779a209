#include "platform/linux/codec/UserComment.h"

#include <algorithm>
#include <cstddef>

namespace selvio {
namespace {

constexpr std::size_t kCodeSize = 8;
constexpr std::string_view kAscii("ASCII\0\0\0", kCodeSize);
constexpr std::string_view kUnicode("UNICODE\0", kCodeSize);
constexpr std::string_view kJis("JIS\0\0\0\0\0", kCodeSize);
constexpr std::string_view kUndefined("\0\0\0\0\0\0\0\0", kCodeSize);
constexpr char32_t kReplacement = 0xFFFD;

/// Takes one code point off the front of a UTF-8 text that is not empty. Nothing for an ill-formed sequence, of which
/// one byte is taken.
std::optional<char32_t> takeCodePoint(std::string_view& text) {
    const auto byteAt = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
    const std::uint8_t first = byteAt(0);
    const std::size_t length = first < 0x80                    ? 1
                               : first >= 0xC2 && first < 0xE0 ? 2
                               : first >= 0xE0 && first < 0xF0 ? 3
                               : first >= 0xF0 && first < 0xF5 ? 4
                                                               : 0;
    char32_t value = length == 1 ? first : length == 2 ? first & 0x1F : length == 3 ? first & 0x0F : first & 0x07;
    bool wellFormed = length >= 1 && length <= text.size();
    for (std::size_t i = 1; wellFormed && i < length; ++i) {
        wellFormed = (byteAt(i) & 0xC0) == 0x80;
        value = value << 6 | (byteAt(i) & 0x3F);
    }
    const bool overlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
    wellFormed = wellFormed && !overlong && value <= 0x10FFFF && !(value >= 0xD800 && value < 0xE000);
    text.remove_prefix(wellFormed ? length : 1);
    return wellFormed ? std::optional(value) : std::nullopt;
}

void appendUtf8(std::string& text, char32_t value) {
    const auto append = [&](char32_t byte) { text.push_back(static_cast<char>(byte)); };
    if (value < 0x80) {
        append(value);
        return;
    }
    if (value < 0x800) {
        append(0xC0 | value >> 6);
    } else {
        if (value < 0x10000) {
            append(0xE0 | value >> 12);
        } else {
            append(0xF0 | value >> 18);
            append(0x80 | (value >> 12 & 0x3F));
        }
        append(0x80 | (value >> 6 & 0x3F));
    }
    append(0x80 | (value & 0x3F));
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        if (!takeCodePoint(text)) return false;
    }
    return true;
}

std::string fromBytesOfUnknownCode(std::string_view bytes) {
    if (isUtf8(bytes)) return std::string(bytes);
    std::string text;
    for (const char byte : bytes) appendUtf8(text, static_cast<std::uint8_t>(byte));
    return text;
}

std::string fromUtf16(std::string_view bytes, bool bigEndian) {
    const auto unitAt = [&](std::size_t i, bool big) {
        const auto first = static_cast<std::uint8_t>(bytes[2 * i]);
        const auto second = static_cast<std::uint8_t>(bytes[2 * i + 1]);
        return static_cast<char32_t>(big ? first << 8 | second : second << 8 | first);
    };
    const std::size_t count = bytes.size() / 2;
    std::size_t begin = 0;
    if (count > 0 && (unitAt(0, true) == 0xFEFF || unitAt(0, false) == 0xFEFF)) {
        bigEndian = unitAt(0, true) == 0xFEFF;
        begin = 1;
    } else {
        const auto latinUnits = [&](bool big) {
            std::size_t latin = 0;
            for (std::size_t i = 0; i < count; ++i) latin += unitAt(i, big) != 0 && unitAt(i, big) < 0x100 ? 1 : 0;
            return latin;
        };
        // Some letters, such as U+4E00, are Latin ones the wrong way round: only a good many of them, and no real one,
        // speak for the other order.
        if (count >= 4 && latinUnits(bigEndian) == 0 && 2 * latinUnits(!bigEndian) >= count) bigEndian = !bigEndian;
    }
    std::string text;
    for (std::size_t i = begin; i < count; ++i) {
        const char32_t unit = unitAt(i, bigEndian);
        const bool isHigh = unit >= 0xD800 && unit < 0xDC00;
        const char32_t next = isHigh && i + 1 < count ? unitAt(i + 1, bigEndian) : 0;
        if (next >= 0xDC00 && next < 0xE000) {
            appendUtf8(text, 0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00));
            ++i;
        } else {
            appendUtf8(text, unit >= 0xD800 && unit < 0xE000 ? kReplacement : unit);
        }
    }
    return text;
}

void removeTrailingNuls(std::string& text) {
    text.erase(text.find_last_not_of('\0') + 1);
}

}  // namespace

std::vector<std::uint8_t> encodeUserComment(std::string_view text, bool bigEndian) {
    const bool ascii = std::ranges::all_of(text, [](char c) { return static_cast<std::uint8_t>(c) < 0x80; });
    const std::string_view code = ascii ? kAscii : kUnicode;
    std::vector<std::uint8_t> field(kCodeSize + (ascii ? text.size() : 0));
    const auto textBegin = std::ranges::copy(code, field.begin()).out;
    if (ascii) {
        std::ranges::copy(text, textBegin);
        return field;
    }
    const auto appendUnit = [&](char32_t unit) {
        const auto high = static_cast<std::uint8_t>(unit >> 8);
        const auto low = static_cast<std::uint8_t>(unit & 0xFF);
        field.push_back(bigEndian ? high : low);
        field.push_back(bigEndian ? low : high);
    };
    while (!text.empty()) {
        const char32_t value = takeCodePoint(text).value_or(kReplacement);
        if (value < 0x10000) {
            appendUnit(value);
        } else {
            appendUnit(0xD800 + ((value - 0x10000) >> 10));
            appendUnit(0xDC00 + ((value - 0x10000) & 0x3FF));
        }
    }
    return field;
}

std::optional<std::string> decodeUserComment(std::span<const std::uint8_t> field, bool bigEndian) {
    const std::string_view all(reinterpret_cast<const char*>(field.data()), field.size());
    const std::string_view code = all.substr(0, kCodeSize);
    if (code == kJis) return std::nullopt;
    std::string text;
    if (code == kUnicode) {
        text = fromUtf16(all.substr(kCodeSize), bigEndian);
    } else {
        text = fromBytesOfUnknownCode(code == kAscii || code == kUndefined ? all.substr(kCodeSize) : all);
    }
    removeTrailingNuls(text);
    return text;
}

}  // namespace selvio
