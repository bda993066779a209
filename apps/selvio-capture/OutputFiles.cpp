#include "OutputFiles.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <string>
#include <system_error>

namespace selvio::app {
namespace {

Error failure(const std::string& doing, const std::filesystem::path& path, int code) {
    return {"cannot " + doing + " " + path.string() + ": " + std::generic_category().message(code)};
}

/// A new file beside its later name, gone again unless it is kept.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::filesystem::path& target)
        : path_(target.parent_path() /
                ("." + target.filename().string() + "." + std::to_string(::getpid()) + ".part")) {
        ::unlink(path_.c_str());  // what a killed process of the same number may have left
        descriptor_ = ::open(path_.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666);
        error_ = descriptor_ < 0 ? errno : 0;
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        if (descriptor_ < 0) return;
        ::close(descriptor_);
        if (!kept_) ::unlink(path_.c_str());
    }

    [[nodiscard]] int error() const { return error_; }

    int write(std::string_view bytes) {
        while (!bytes.empty()) {
            const auto written = ::write(descriptor_, bytes.data(), bytes.size());
            if (written < 0 && errno != EINTR) return errno;
            if (written > 0) bytes.remove_prefix(static_cast<std::size_t>(written));
        }
        return ::fsync(descriptor_) == 0 ? 0 : errno;
    }

    int keepAs(const std::filesystem::path& target) {
        kept_ = ::rename(path_.c_str(), target.c_str()) == 0;
        return kept_ ? 0 : errno;
    }

private:
    const std::filesystem::path path_;
    int descriptor_ = -1;
    int error_ = 0;
    bool kept_ = false;
};

}  // namespace

std::optional<Error> prepareOutputDirectory(const std::filesystem::path& directory) {
    std::error_code code;
    std::filesystem::create_directories(directory, code);
    if (code) return failure("create", directory, code.value());
    const TemporaryFile probe(directory / "probe");
    if (probe.error() != 0) return failure("write into", directory, probe.error());
    return std::nullopt;
}

std::optional<Error> writeFileAtomically(const std::filesystem::path& path, std::string_view bytes) {
    TemporaryFile file(path);
    int code = file.error();
    if (code == 0) code = file.write(bytes);
    if (code == 0) code = file.keepAs(path);
    if (code != 0) return failure("write", path, code);
    return std::nullopt;
}

}  // namespace selvio::app
