// What the process holds of the system.
#pragma once

#include <cstddef>
#include <filesystem>

namespace selvio::test {

[[nodiscard]] long allocatedBlocks();

/// A test that asks needs Resources.cpp among its sources.
struct Resources {
    std::size_t threads = 0;
    std::size_t descriptors = 0;
    /// How many blocks are allocated with `new`; 0 under a sanitizer, which finds leaks itself. What threads and the
    /// allocator keep for themselves shows in bytes, but not here.
    long blocks = 0;

    static Resources now() {
        const auto entries = [](const char* directory) {
            return static_cast<std::size_t>(
                std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator()));
        };
        return {entries("/proc/self/task"), entries("/proc/self/fd"), allocatedBlocks()};
    }
};

}  // namespace selvio::test
