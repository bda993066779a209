// What the process holds of the system.
#pragma once

#include "support/TemporaryDirectory.h"

namespace selvio {

[[nodiscard]] long allocatedBlocks();

/// A test that asks needs Resources.cpp among its sources.
struct Resources {
    std::size_t threads = 0;
    std::size_t descriptors = 0;
    /// How many blocks are allocated with `new`; 0 under a sanitizer, which finds leaks itself. What threads and the
    /// allocator keep for themselves shows in bytes, but not here.
    long blocks = 0;

    static Resources now() { return {entriesIn("/proc/self/task"), entriesIn("/proc/self/fd"), allocatedBlocks()}; }
};

}  // namespace selvio
