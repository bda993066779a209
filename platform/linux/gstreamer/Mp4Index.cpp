#include "platform/linux/gstreamer/Mp4Index.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>
#include <span>
#include <string_view>
#include <system_error>
#include <vector>

namespace selvio {
namespace {

constexpr std::size_t kBlock = 1 << 20;

class File {
public:
    explicit File(const std::filesystem::path& path)
        : stream_(path, std::ios::binary | std::ios::in | std::ios::out | std::ios::ate) {}
    [[nodiscard]] std::optional<std::uint64_t> size() {
        if (!stream_) return std::nullopt;
        return static_cast<std::uint64_t>(stream_.tellg());
    }
    [[nodiscard]] bool read(std::span<std::uint8_t> bytes, std::uint64_t offset) {
        stream_.seekg(static_cast<std::streamoff>(offset));
        errno = EIO;  // a file that ends too early says nothing else
        return !!stream_.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    [[nodiscard]] bool write(std::span<const std::uint8_t> bytes, std::uint64_t offset) {
        stream_.seekp(static_cast<std::streamoff>(offset));
        stream_.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        return !!stream_.flush();
    }

private:
    std::fstream stream_;
};

std::uint64_t number(std::span<const std::uint8_t> bytes) {
    std::uint64_t value = 0;
    for (const std::uint8_t byte : bytes) value = value << 8 | byte;
    return value;
}

void setNumber(std::span<std::uint8_t> bytes, std::uint64_t value) {
    for (std::size_t i = bytes.size(); i-- > 0; value >>= 8) bytes[i] = static_cast<std::uint8_t>(value);
}

bool isType(std::span<const std::uint8_t> atom, std::string_view type) {
    return std::memcmp(atom.data() + 4, type.data(), 4) == 0;
}

/// Adds to every chunk offset inside of an atom. False if one cannot take it, or the atoms do not fit into each other.
bool addToOffsets(std::span<std::uint8_t> atom, std::uint64_t added) {
    const bool is64 = isType(atom, "co64");
    if (is64 || isType(atom, "stco")) {
        const std::size_t width = is64 ? 8 : 4;
        if (atom.size() < 16) return false;
        const std::uint64_t count = number(atom.subspan(12, 4));
        if (atom.size() < 16 + count * width) return false;
        for (std::uint64_t i = 0; i < count; ++i) {
            const auto entry = atom.subspan(16 + i * width, width);
            const std::uint64_t offset = number(entry) + added;
            if (!is64 && offset > std::numeric_limits<std::uint32_t>::max()) return false;
            setNumber(entry, offset);
        }
        return true;
    }
    constexpr std::string_view kContainers[] = {"moov", "trak", "mdia", "minf", "stbl"};
    if (std::none_of(std::begin(kContainers), std::end(kContainers), [&](auto type) { return isType(atom, type); }))
        return true;
    for (auto rest = atom.subspan(8); !rest.empty();) {
        const std::uint64_t size = rest.size() < 8 ? 0 : number(rest.first(4));
        if (size < 8 || size > rest.size() || !addToOffsets(rest.first(size), added)) return false;
        rest = rest.subspan(size);
    }
    return true;
}

Error lastError() {
    return {std::generic_category().message(errno)};
}

}  // namespace

std::optional<Error> moveIndexToFront(const std::filesystem::path& path) {
    File file(path);
    const auto fileSize = file.size();
    if (!fileSize) return lastError();
    std::uint64_t mediaStart = 0, indexStart = 0;  // 0: not seen
    for (std::uint64_t at = 0; at < *fileSize;) {
        std::uint8_t header[16] = {};
        const auto length = std::min<std::uint64_t>(sizeof header, *fileSize - at);
        if (!file.read(std::span(header).first(length), at)) return lastError();
        std::uint64_t size = number(std::span(header).first(4));
        if (size == 1) size = number(std::span(header).subspan(8));
        if (size == 0) size = *fileSize - at;
        if (size < 8 || size > *fileSize - at) return Error{"it is no MP4 file"};
        if (isType(header, "moov")) indexStart = at;
        if (isType(header, "mdat") && mediaStart == 0) mediaStart = at;
        at += size;
    }
    if (indexStart == 0 || mediaStart == 0) return Error{"it has no index or no media data"};
    if (indexStart < mediaStart) return std::nullopt;

    // The index is the last atom: what stands before it moves up by its length, from the back.
    std::vector<std::uint8_t> index(*fileSize - indexStart);
    if (!file.read(index, indexStart)) return lastError();
    if (number(std::span(index).first(4)) != index.size()) return Error{"its index is not at the end"};
    if (!addToOffsets(index, index.size())) return std::nullopt;
    std::vector<std::uint8_t> block(kBlock);
    for (std::uint64_t end = indexStart; end > mediaStart;) {
        const auto part = std::span(block).first(std::min<std::uint64_t>(kBlock, end - mediaStart));
        end -= part.size();
        if (!file.read(part, end) || !file.write(part, end + index.size())) return lastError();
    }
    if (!file.write(index, mediaStart)) return lastError();
    return std::nullopt;
}

}  // namespace selvio
