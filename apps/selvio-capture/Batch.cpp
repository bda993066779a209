#include "Batch.h"

#include <sched.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <system_error>

namespace selvio::app {
namespace {

namespace fs = std::filesystem;

constexpr auto kDrawInterval = std::chrono::milliseconds(200);

bool isPicture(const fs::path& path) {
    std::string extension = path.extension().string();
    std::ranges::transform(extension, extension.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension == ".jpg" || extension == ".jpeg" || extension == ".png";
}

std::string asTime(double seconds) {
    const auto whole = std::llround(seconds);
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
    return text.data();
}

}  // namespace

PictureWalk::PictureWalk(std::vector<std::string> paths) : paths_(std::move(paths)) {
    std::ranges::reverse(paths_);
}

void PictureWalk::enter(const std::string& folder) {
    std::error_code code;
    const auto begin = entries_.size();
    for (fs::directory_iterator it(folder, code); !code && it != fs::directory_iterator(); it.increment(code))
        entries_.push_back(*it);
    if (code) problem_ = FoundPicture{folder, folder + ": " + code.message()};
    std::sort(entries_.begin() + static_cast<std::ptrdiff_t>(begin), entries_.end(),
              [](const auto& a, const auto& b) { return a.path() > b.path(); });
}

std::optional<FoundPicture> PictureWalk::next() {
    for (;;) {
        if (problem_) return std::exchange(problem_, std::nullopt);
        std::error_code code;
        if (!entries_.empty()) {
            const fs::directory_entry entry = std::move(entries_.back());
            entries_.pop_back();
            if (entry.is_directory(code)) {
                if (!entry.is_symlink(code)) enter(entry.path().string());
            } else if (isPicture(entry.path())) {
                return FoundPicture{entry.path().string(), ""};
            }
        } else if (!paths_.empty()) {
            std::string path = std::move(paths_.back());
            paths_.pop_back();
            if (!fs::is_directory(path, code)) return FoundPicture{std::move(path), ""};
            enter(path);
        } else {
            return std::nullopt;
        }
    }
}

unsigned availableCores() {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    if (::sched_getaffinity(0, sizeof cores, &cores) != 0) return std::max(1U, std::thread::hardware_concurrency());
    return static_cast<unsigned>(CPU_COUNT(&cores));
}

Progress::Progress(std::size_t total, std::string left) : total_(total), left_(std::move(left)) {}

void Progress::hide() {
    if (std::exchange(visible_, false)) std::fputs("\r\033[K", stderr);
}

void Progress::show(std::size_t done) {
    const auto now = std::chrono::steady_clock::now();
    if (total_ == 0 || done == 0 || (visible_ && now - drawn_ < kDrawInterval)) return;
    drawn_ = now;
    visible_ = true;
    constexpr std::size_t kWidth = 30;
    const double rate = static_cast<double>(done) / std::max(seconds(), 0.001);
    const std::size_t left = total_ - std::min(done, total_);  // files may have come since they were counted
    const auto full = (total_ - left) * kWidth / total_;
    std::fprintf(stderr, "\r\033[K[%s%s] %zu/%zu  %.1f/s  %s %s", std::string(full, '#').c_str(),
                 std::string(kWidth - full, '.').c_str(), done, total_, rate,
                 asTime(static_cast<double>(left) / rate).c_str(), left_.c_str());
    std::fflush(stderr);
}

double Progress::seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

}  // namespace selvio::app
