// Port: the component's own files. Any thread.
#pragma once

#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/base/Export.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace selvio {

class SELVIO_EXPORT FileManager {
public:
    virtual ~FileManager() = default;
    /// The directory that holds recordings; private to the component, because the clean-up deletes files in it by
    /// pattern. Empty if there is none.
    [[nodiscard]] virtual std::filesystem::path documentsDirectory() const = 0;
    /// The names in a directory, in listing order, without recursion.
    [[nodiscard]] virtual Expected<std::vector<std::string>> contentsOfDirectory(
        const std::filesystem::path& directory) const = 0;
    [[nodiscard]] virtual bool fileExists(const std::filesystem::path& path) const = 0;
    virtual std::optional<Error> removeItem(const std::filesystem::path& path) = 0;
    /// The whole file.
    [[nodiscard]] virtual Expected<std::vector<std::uint8_t>> readFile(const std::filesystem::path& path) const = 0;
};

}  // namespace selvio
