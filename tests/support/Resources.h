// What the process holds of the system.
#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>

namespace selvio::test {

struct Resources {
    std::size_t threads = 0;
    std::size_t descriptors = 0;
    long kilobytes = 0;  ///< resident; 0 under a sanitizer, which keeps what was freed and finds leaks itself

    static Resources now() {
        const auto entries = [](const char* directory) {
            return static_cast<std::size_t>(
                std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator()));
        };
        Resources held{entries("/proc/self/task"), entries("/proc/self/fd")};
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
        std::ifstream status("/proc/self/status");
        for (std::string word; status >> word;) {
            if (word == "VmRSS:") status >> held.kilobytes;
        }
#endif
        return held;
    }
};

}  // namespace selvio::test
