// One directory in memory.
#pragma once

#include <SelvioFacialCapture/platform/Files.h>

#include <map>
#include <set>

namespace selvio {

struct FakeFileManager final : FileManager {
    using Path = std::filesystem::path;
    using Files = std::map<Path, std::vector<std::uint8_t>>;

    Path documentsDirectory() const override { return "/documents"; }
    Expected<std::vector<std::string>> contentsOfDirectory(const Path& directory) const override {
        if (directory != documentsDirectory() || refused.contains("listing")) return Error{"no such directory"};
        std::vector<std::string> names;
        for (const auto& [path, bytes] : files) names.push_back(path.filename().string());
        return names;
    }
    bool fileExists(const Path& path) const override { return files.contains(path); }
    std::optional<Error> removeItem(const Path& path) override {
        if (refused.contains(path.filename().string())) return Error{"read-only"};
        files.erase(path);
        return std::nullopt;
    }
    Expected<Files::mapped_type> readFile(const Path& path) const override {
        return files.contains(path) ? files.at(path) : Expected<Files::mapped_type>(Error{"no such file"});
    }

    Files files;
    std::set<std::string> refused;  ///< "listing", or to delete the file of that name
};

}  // namespace selvio
