#include <SelvioFacialCapture/linux/Codec.h>

#include "platform/linux/codec/JpegFile.h"
#include "platform/linux/codec/PngFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <new>
#include <system_error>

namespace selvio {
namespace {

constexpr std::size_t kLongestJpeg = std::size_t{1} << 30;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

/// Opens a regular file that is not empty, and returns its length.
Expected<File> openPicture(const std::string& path, std::size_t& length) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (std::filesystem::is_directory(status)) return Error{"a directory, not a picture"};
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status))
        return Error{"not a regular file"};
    File file(std::fopen(path.c_str(), "rbe"));
    if (!file) return Error{std::generic_category().message(errno)};
    length = std::filesystem::file_size(path, error);
    if (error) return Error{error.message()};
    if (length == 0) return Error{"empty"};
    return file;
}

Expected<std::shared_ptr<PixelBuffer>> readPicture(const std::string& path) try {
    std::size_t length = 0;
    const auto file = openPicture(path, length);
    if (!file) return file.error();
    constexpr std::array<std::uint8_t, 8> kPng{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    constexpr std::array<std::uint8_t, 3> kJpeg{0xFF, 0xD8, 0xFF};
    std::array<std::uint8_t, 8> start{};
    const std::size_t got = std::fread(start.data(), 1, start.size(), file.value().get());
    std::rewind(file.value().get());
    if (got >= kPng.size() && start == kPng) return readPngFile(file.value().get(), length);
    if (got < kJpeg.size() || !std::equal(kJpeg.begin(), kJpeg.end(), start.begin()))
        return Error{"neither JPEG nor PNG"};
    if (length > kLongestJpeg) return Error{"longer than any picture"};
    Bytes bytes(length);
    if (std::fread(bytes.data(), 1, length, file.value().get()) != length) return Error{"cut short"};
    return decodeJpeg(bytes);
} catch (const std::bad_alloc&) {
    return Error{"not enough memory"};
}

/// The message stays one line whatever the name holds.
std::string withoutControlCharacters(std::string text) {
    std::ranges::replace_if(
        text, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }, '?');
    return text;
}

}  // namespace

Expected<std::shared_ptr<PixelBuffer>> JpegPngImageLoader::loadImage(const std::string& path) const {
    auto picture = readPicture(path);
    if (!picture) return Error{withoutControlCharacters(path + ": " + picture.error().localizedDescription)};
    return picture;
}

}  // namespace selvio
