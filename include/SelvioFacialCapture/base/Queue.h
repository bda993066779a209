// Work queues. "On queue Q" in this project means: inside a block that Q runs, where Q->isCurrent() holds.
#pragma once

#include <SelvioFacialCapture/base/Export.h>

#include <cassert>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace selvio {

/// Takes blocks and runs each of them once. A block must not throw.
class SELVIO_EXPORT Queue {
public:
    using Block = std::function<void()>;

    Queue() = default;
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;
    virtual ~Queue() = default;

    /// Submits a block and returns at once. Any thread. Serial queues run blocks in the order of submission.
    virtual void async(Block block) = 0;
    /// Submits a block that runs no sooner than after `delay`. Any thread.
    virtual void asyncAfter(std::chrono::nanoseconds delay, Block block) = 0;
    /// Whether the calling thread is running a block of this queue.
    [[nodiscard]] virtual bool isCurrent() const = 0;
    [[nodiscard]] virtual const std::string& label() const = 0;
};

}  // namespace selvio

/// Queue-bound functions state their queue with this.
#define SELVIO_ASSERT_ON_QUEUE(queue) assert((queue) != nullptr && (queue)->isCurrent())
