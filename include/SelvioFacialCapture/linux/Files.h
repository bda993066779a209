// The component's own files on Linux.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/platform/Files.h>

#include <mutex>

namespace selvio {

/// Each manager has a documents directory of its own, so that the clean-up of one process leaves the recordings of
/// another alone. What a manager left behind, because its process ended early, the next one removes. Any thread.
class SELVIO_EXPORT LinuxFileManager final : public FileManager {
public:
    /// `parent` holds the managers' directories, "selvio-process-XXXXXX". An empty path asks for the default:
    /// $XDG_DATA_HOME/SelvioFacialCapture/Documents, or under ~/.local/share if that variable is unset, empty or
    /// relative. Never the person's own Documents: the clean-up deletes files by pattern. The environment is read here,
    /// once.
    explicit LinuxFileManager(std::filesystem::path parent = {});
    LinuxFileManager(const LinuxFileManager&) = delete;
    LinuxFileManager& operator=(const LinuxFileManager&) = delete;
    /// An empty documents directory is removed; one with files stays for the next manager to remove.
    ~LinuxFileManager() override;

    /// Made on demand with every missing directory above it, for the owner alone (0700). Each call removes the
    /// recordings ("selvio_….mp4") and directories of managers that are no more, and recordings in the parent itself.
    /// If it cannot be made, that is logged and the parent returned, so that its users fail with the system's reason.
    /// Empty if there is no home directory at all.
    [[nodiscard]] std::filesystem::path documentsDirectory() const override;
    [[nodiscard]] Expected<std::vector<std::string>> contentsOfDirectory(
        const std::filesystem::path& directory) const override;
    [[nodiscard]] bool fileExists(const std::filesystem::path& path) const override;
    /// Removes a file, a link (not what it points to) or an empty directory.
    std::optional<Error> removeItem(const std::filesystem::path& path) override;
    /// Regular files only: a device or a pipe could have no end.
    [[nodiscard]] Expected<std::vector<std::uint8_t>> readFile(const std::filesystem::path& path) const override;

private:
    const std::filesystem::path parent_;
    mutable std::mutex mutex_;
    mutable std::filesystem::path own_;  // guarded by mutex_; empty until it is made
    mutable int lock_ = -1;              // guarded by mutex_; descriptor of `own_`, locked as long as this lives
};

}  // namespace selvio
