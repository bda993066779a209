// Files of a test.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace selvio {

/// Empty for a file that is not there.
inline std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// How many files and directories stand in a directory; 0 where there is none.
inline std::size_t entriesIn(const std::filesystem::path& directory) {
    std::error_code none;
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(directory, none), {}));
}

/// A directory of its own, removed with all that is in it.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string name = (std::filesystem::temp_directory_path() / "selvio-test-XXXXXX").string();
        path_ = ::mkdtemp(name.data());
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    /// Writes a file, with the directories on the way to it, and tells its path.
    std::string write(const std::string& name, const std::string& text) const {
        std::filesystem::create_directories((path_ / name).parent_path());
        std::ofstream(path_ / name, std::ios::binary) << text;
        return (path_ / name).string();
    }
    std::string write(const std::string& name, const std::vector<std::uint8_t>& bytes) const {
        return write(name, std::string(bytes.begin(), bytes.end()));
    }

private:
    std::filesystem::path path_;
};

}  // namespace selvio
