#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/linux/Files.h>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace selvio {
namespace {

namespace fs = std::filesystem;

Error failure(const fs::path& path, const std::error_code& code) {
    return {path.string() + ": " + code.message()};
}

std::error_code lastError() {
    return {errno, std::generic_category()};
}

std::optional<fs::path> absolutePathFromEnvironment(const char* variable) {
    const char* const value = std::getenv(variable);
    if (value == nullptr || !fs::path(value).is_absolute()) return std::nullopt;
    return value;
}

fs::path homeDirectory() {
    if (const auto home = absolutePathFromEnvironment("HOME")) return *home;
    std::vector<char> text(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, text.data(), text.size(), &found) != 0 || found == nullptr) return {};
    return found->pw_dir;
}

fs::path defaultDocumentsDirectory() {
    fs::path data;
    if (const auto xdg = absolutePathFromEnvironment("XDG_DATA_HOME")) {
        data = *xdg;
    } else {
        const fs::path home = homeDirectory();
        if (home.empty()) return {};
        data = home / ".local" / "share";
    }
    return data / "SelvioFacialCapture" / "Documents";
}

std::error_code makePrivateDirectories(const fs::path& directory) {
    fs::path made;
    for (const fs::path& part : directory) {
        made /= part;
        std::error_code ignored;
        if (fs::is_directory(made, ignored)) continue;
        if (mkdir(made.c_str(), S_IRWXU) != 0 && errno != EEXIST) return lastError();
    }
    std::error_code error;
    if (!fs::is_directory(directory, error) && !error) error = std::make_error_code(std::errc::not_a_directory);
    return error;
}

class FileDescriptor {
public:
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (descriptor_ >= 0) close(descriptor_);
    }
    [[nodiscard]] int get() const { return descriptor_; }

private:
    int descriptor_;
};

}  // namespace

LinuxFileManager::LinuxFileManager(fs::path documentsDirectory)
    : documentsDirectory_(documentsDirectory.empty() ? defaultDocumentsDirectory() : std::move(documentsDirectory)) {}

fs::path LinuxFileManager::documentsDirectory() const {
    if (documentsDirectory_.empty()) {
        log("No documents directory: there is neither XDG_DATA_HOME nor a home directory");
    } else if (const std::error_code error = makePrivateDirectories(documentsDirectory_)) {
        log("Couldn't make the documents directory " + failure(documentsDirectory_, error).localizedDescription);
    }
    return documentsDirectory_;
}

Expected<std::vector<std::string>> LinuxFileManager::contentsOfDirectory(const fs::path& directory) const {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error))
        names.push_back(it->path().filename().string());
    if (error) return failure(directory, error);
    return names;
}

bool LinuxFileManager::fileExists(const fs::path& path) const {
    std::error_code error;
    return fs::exists(path, error);
}

std::optional<Error> LinuxFileManager::removeItem(const fs::path& path) {
    std::error_code error;
    const bool removed = fs::remove(path, error);
    if (!removed && !error) error = std::make_error_code(std::errc::no_such_file_or_directory);
    if (error) return failure(path, error);
    return std::nullopt;
}

Expected<std::vector<std::uint8_t>> LinuxFileManager::readFile(const fs::path& path) const {
    const FileDescriptor file(
        open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));  // does not wait for a pipe's writer
    struct stat status {};
    if (file.get() < 0 || fstat(file.get(), &status) != 0) return failure(path, lastError());
    if (S_ISDIR(status.st_mode)) return failure(path, std::make_error_code(std::errc::is_a_directory));
    if (!S_ISREG(status.st_mode)) return Error{path.string() + ": not a regular file"};
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(status.st_size));
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = read(file.get(), bytes.data() + done, bytes.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return failure(path, lastError());
        if (count == 0) break;  // became shorter meanwhile
        done += static_cast<std::size_t>(count);
    }
    bytes.resize(done);
    return bytes;
}

}  // namespace selvio
