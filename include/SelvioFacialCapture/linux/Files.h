// The component's own files on Linux.
#pragma once

#include <SelvioFacialCapture/platform/Files.h>

namespace selvio {

/// No state after construction: any thread.
class LinuxFileManager final : public FileManager {
public:
    /// An empty path asks for the default: $XDG_DATA_HOME/SelvioFacialCapture/Documents, or under ~/.local/share if
    /// that variable is unset, empty or relative. Never the person's own Documents: the clean-up deletes files by
    /// pattern. The environment is read here, once.
    explicit LinuxFileManager(std::filesystem::path documentsDirectory = {});

    /// Made on demand with every missing directory above it, for the owner alone (0700). If it cannot be made, that is
    /// logged and the path returned all the same, so that its users fail with the system's reason. Empty if there is no
    /// home directory at all.
    [[nodiscard]] std::filesystem::path documentsDirectory() const override;
    [[nodiscard]] Expected<std::vector<std::string>> contentsOfDirectory(
        const std::filesystem::path& directory) const override;
    [[nodiscard]] bool fileExists(const std::filesystem::path& path) const override;
    /// Removes a file, a link (not what it points to) or an empty directory.
    std::optional<Error> removeItem(const std::filesystem::path& path) override;
    /// Regular files only: a device or a pipe could have no end.
    [[nodiscard]] Expected<std::vector<std::uint8_t>> readFile(const std::filesystem::path& path) const override;

private:
    const std::filesystem::path documentsDirectory_;
};

}  // namespace selvio
