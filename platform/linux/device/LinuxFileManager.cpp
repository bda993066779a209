#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/linux/Files.h>

#include <fcntl.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string_view>
#include <system_error>
#include <tuple>
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
    if (!value || !fs::path(value).is_absolute()) return std::nullopt;
    return value;
}

fs::path homeDirectory() {
    if (const auto home = absolutePathFromEnvironment("HOME")) return *home;
    std::vector<char> text(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, text.data(), text.size(), &found) != 0 || !found) return {};
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

constexpr std::string_view kOwnPrefix = "selvio-process-";

/// A descriptor that holds the lock of a directory; negative, with the reason in errno, if there is none. EWOULDBLOCK:
/// another one holds it.
int lockDirectory(const fs::path& directory) {
    const int descriptor = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0 || flock(descriptor, LOCK_EX | LOCK_NB) == 0) return descriptor;
    const int reason = errno;
    close(descriptor);
    errno = reason;
    return -1;
}

/// What a directory holds, as far as it can be read.
std::vector<fs::path> entriesOf(const fs::path& directory, std::error_code& error) {
    std::vector<fs::path> entries;
    for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error))
        entries.push_back(it->path());
    return entries;
}

void removeRecordingsIn(const fs::path& directory) {
    std::error_code ignored;
    for (const fs::path& path : entriesOf(directory, ignored)) {
        const std::string name = path.filename().string();
        if (name.starts_with("selvio_") && name.ends_with(".mp4")) fs::remove(path, ignored);
    }
}

/// Removes what destroyed managers left: their lock ended with them. Nobody writes into the parent itself.
void removeLeftovers(const fs::path& parent) {
    removeRecordingsIn(parent);
    std::error_code ignored;
    for (const fs::path& path : entriesOf(parent, ignored)) {
        if (!path.filename().string().starts_with(kOwnPrefix)) continue;
        const int lock = lockDirectory(path);
        if (lock < 0) continue;
        removeRecordingsIn(path);
        fs::remove(path, ignored);  // unless it is not empty
        close(lock);
    }
}

/// Makes a directory that is locked; nothing and the reason if that is impossible.
std::pair<fs::path, int> makeOwnDirectory(const fs::path& parent, std::error_code& error) {
    for (;;) {
        std::string path = (parent / kOwnPrefix).string() + "XXXXXX";
        if (!mkdtemp(path.data())) {
            error = lastError();
            return {fs::path(), -1};
        }
        const int lock = lockDirectory(path);
        struct stat status {};
        if (lock >= 0 && fstat(lock, &status) == 0 && status.st_nlink > 0) return {path, lock};
        // Another manager may take it for a leftover: it holds the lock, or has removed it before or after this opened.
        const bool taken = lock >= 0 || errno == EWOULDBLOCK || errno == ENOENT;
        if (lock >= 0) close(lock);
        if (taken) continue;
        error = lastError();
        rmdir(path.c_str());
        return {fs::path(), -1};
    }
}

}  // namespace

LinuxFileManager::LinuxFileManager(fs::path parent)
    : parent_(parent.empty() ? defaultDocumentsDirectory() : std::move(parent)) {}

LinuxFileManager::~LinuxFileManager() {
    if (lock_ < 0) return;
    std::error_code ignored;
    fs::remove(own_, ignored);
    close(lock_);
}

fs::path LinuxFileManager::documentsDirectory() const {
    if (parent_.empty()) {
        log("No documents directory: there is neither XDG_DATA_HOME nor a home directory");
        return parent_;
    }
    std::error_code error;
    {
        const std::lock_guard lock(mutex_);
        removeLeftovers(parent_);
        std::error_code ignored;
        if (lock_ >= 0 && fs::is_directory(own_, ignored)) return own_;
        if (lock_ >= 0) close(std::exchange(lock_, -1));  // somebody has removed it
        error = makePrivateDirectories(parent_);
        if (!error) std::tie(own_, lock_) = makeOwnDirectory(parent_, error);
        if (!error) return own_;
    }
    log("Couldn't make the documents directory " + failure(parent_, error).localizedDescription);
    return parent_;
}

Expected<std::vector<std::string>> LinuxFileManager::contentsOfDirectory(const fs::path& directory) const {
    std::error_code error;
    std::vector<std::string> names;
    for (const fs::path& path : entriesOf(directory, error)) names.push_back(path.filename().string());
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
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (fs::is_directory(status)) return failure(path, std::make_error_code(std::errc::is_a_directory));
    if (fs::exists(status) && !fs::is_regular_file(status)) return Error{path.string() + ": not a regular file"};
    std::ifstream file(path, std::ios::binary);
    if (!file) return failure(path, lastError());
    std::vector<std::uint8_t> bytes(fs::file_size(path, error));
    if (error) return failure(path, error);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (file.bad()) return failure(path, lastError());
    bytes.resize(static_cast<std::size_t>(file.gcount()));  // it may have become shorter meanwhile
    return bytes;
}

}  // namespace selvio
