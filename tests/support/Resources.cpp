// Counts what the whole program, its libraries included, allocates with `new`. Sanitizers bring operators of their own.
#include "support/Resources.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> blocks{0};

}  // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
void* operator new(std::size_t size) {
    void* const block = std::malloc(size > 0 ? size : 1);
    if (!block) throw std::bad_alloc();
    ++blocks;
    return block;
}

void operator delete(void* block) noexcept {
    if (block) --blocks;
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}
#endif

long selvio::allocatedBlocks() {
    return blocks;
}
