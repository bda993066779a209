// One directory in memory.
#pragma once

#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/platform/Files.h>

#include <map>
#include <set>

namespace selvio {

class FakeFileManager final : public FileManager {
public:
    using Bytes = std::vector<std::uint8_t>;

    [[nodiscard]] std::filesystem::path documentsDirectory() const override { return "/documents"; }
    [[nodiscard]] Expected<std::vector<std::string>> contentsOfDirectory(
        const std::filesystem::path& directory) const override {
        if (directory != documentsDirectory() || listingFails) return Error{"no such directory"};
        return names();
    }
    [[nodiscard]] bool fileExists(const std::filesystem::path& path) const override {
        return static_cast<bool>(readFile(path));
    }
    std::optional<Error> removeItem(const std::filesystem::path& path) override {
        if (undeletable.contains(path.filename().string())) return Error{"read-only"};
        const std::lock_guard lock(mutex_);
        files_.erase(path);
        return std::nullopt;
    }
    [[nodiscard]] Expected<Bytes> readFile(const std::filesystem::path& path) const override {
        const auto files = mutex_.get(files_);
        return files.contains(path) ? files.at(path) : Expected<Bytes>(Error{"no such file"});
    }

    void put(const std::string& name, Bytes bytes = {}) {
        const std::lock_guard lock(mutex_);
        files_.insert_or_assign(documentsDirectory() / name, std::move(bytes));
    }
    [[nodiscard]] std::vector<std::string> names() const {
        std::vector<std::string> names;
        for (const auto& [path, bytes] : mutex_.get(files_)) names.push_back(path.filename().string());
        return names;
    }

    // Fill these before the calls.
    bool listingFails = false;
    std::set<std::string> undeletable;

private:
    mutable MemberMutex mutex_;
    std::map<std::filesystem::path, Bytes> files_;  // guarded by mutex_
};

}  // namespace selvio
