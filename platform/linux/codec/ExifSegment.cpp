#include "platform/linux/codec/ExifSegment.h"

#include <libexif/exif-data.h>
#include <libexif/exif-mem.h>

#include <algorithm>
#include <array>
#include <cstdlib>

namespace selvio {
namespace {

constexpr std::string_view kHeader("Exif\0\0", 6);
constexpr std::string_view kAsciiCode("ASCII\0\0\0", 8);  // begins a user comment
constexpr std::string_view kExifVersion("0232");
constexpr ExifByteOrder kByteOrder = EXIF_BYTE_ORDER_MOTOROLA;

struct ReleaseExifData {
    void operator()(ExifData* data) const { exif_data_unref(data); }
};
using ExifDataPtr = std::unique_ptr<ExifData, ReleaseExifData>;

/// Empty data that neither adds fields of its own nor drops or repairs those it meets.
ExifDataPtr makeExifData() {
    ExifDataPtr data(exif_data_new());
    if (data) {
        exif_data_unset_option(data.get(), EXIF_DATA_OPTION_FOLLOW_SPECIFICATION);
        exif_data_unset_option(data.get(), EXIF_DATA_OPTION_IGNORE_UNKNOWN_TAGS);
    }
    return data;
}

bool addEntry(ExifContent* content, ExifTag tag, ExifFormat format, std::span<const std::uint8_t> value) {
    ExifMem* const memory = exif_mem_new_default();
    ExifEntry* const entry = exif_entry_new_mem(memory);
    auto* const bytes = static_cast<std::uint8_t*>(exif_mem_alloc(memory, static_cast<ExifLong>(value.size())));
    const bool made = entry && bytes;
    if (made) {
        std::ranges::copy(value, bytes);
        entry->data = bytes;
        entry->size = static_cast<unsigned>(value.size());
        entry->tag = tag;
        entry->format = format;
        entry->components = value.size() / exif_format_get_size(format);
        exif_content_add_entry(content, entry);
    } else {
        exif_mem_free(memory, bytes);
    }
    exif_entry_unref(entry);
    exif_mem_unref(memory);
    return made;
}

bool isAscii(std::string_view text) {
    return std::ranges::all_of(text, [](char c) { return static_cast<std::uint8_t>(c) < 0x80; });
}

std::span<const std::uint8_t> asBytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

std::optional<Bytes> makeExifSegment(const ExifProperties& properties) {
    const ExifDataPtr data = makeExifData();
    if (!data) return std::nullopt;
    exif_data_set_byte_order(data.get(), kByteOrder);
    bool made = addEntry(data->ifd[EXIF_IFD_EXIF], EXIF_TAG_EXIF_VERSION, EXIF_FORMAT_UNDEFINED, asBytes(kExifVersion));
    if (properties.orientation) {
        std::array<std::uint8_t, 2> value{};
        exif_set_short(value.data(), kByteOrder, static_cast<ExifShort>(*properties.orientation));
        made = addEntry(data->ifd[EXIF_IFD_0], EXIF_TAG_ORIENTATION, EXIF_FORMAT_SHORT, value) && made;
    }
    if (properties.userComment) {
        const std::string field = std::string(kAsciiCode) + *properties.userComment;
        if (field.size() > kLongestSegment || !isAscii(field)) return std::nullopt;
        made = addEntry(data->ifd[EXIF_IFD_EXIF], EXIF_TAG_USER_COMMENT, EXIF_FORMAT_UNDEFINED, asBytes(field)) && made;
    }
    unsigned char* bytes = nullptr;
    unsigned size = 0;
    if (made) exif_data_save_data(data.get(), &bytes, &size);
    const std::unique_ptr<unsigned char, decltype(&std::free)> saved(bytes, &std::free);
    if (!saved || size == 0 || size > kLongestSegment) return std::nullopt;
    return Bytes(bytes, bytes + size);
}

std::optional<ExifProperties> readExifSegment(std::span<const std::uint8_t> segment) {
    if (segment.size() < kHeader.size() || !std::ranges::equal(asBytes(kHeader), segment.first(kHeader.size())))
        return std::nullopt;
    const ExifDataPtr data = makeExifData();
    if (!data) return std::nullopt;
    exif_data_load_data(data.get(), segment.data(), static_cast<unsigned>(std::min(segment.size(), kLongestSegment)));
    const ExifByteOrder order = exif_data_get_byte_order(data.get());
    ExifProperties properties;
    const ExifEntry* const orientation = exif_content_get_entry(data->ifd[EXIF_IFD_0], EXIF_TAG_ORIENTATION);
    if (orientation && orientation->data && orientation->format == EXIF_FORMAT_SHORT && orientation->size >= 2) {
        const int value = exif_get_short(orientation->data, order);
        if (value >= 1 && value <= 8) properties.orientation = value;
    }
    const ExifEntry* const comment = exif_content_get_entry(data->ifd[EXIF_IFD_EXIF], EXIF_TAG_USER_COMMENT);
    if (comment && comment->data) {
        std::string_view text(reinterpret_cast<const char*>(comment->data), comment->size);
        if (text.starts_with(kAsciiCode) && isAscii(text)) {
            text.remove_prefix(kAsciiCode.size());
            properties.userComment = text.substr(0, text.find_last_not_of('\0') + 1);  // some writers pad
        }
    }
    return properties;
}

}  // namespace selvio
