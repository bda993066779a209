// The global queue of default priority.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/base/SerialQueue.h>

namespace selvio {

/// Runs blocks on threads of its own, in any order. A block that finds no thread idle gets a new one, so that a block
/// that never ends holds up no other; beyond `mostThreads` (at least 1) blocks wait. A thread that has had nothing to
/// do for `longestIdle` ends.
/// Destruction runs what was submitted (delayed blocks at once) and waits until it has run, for a block that never ends
/// without end; from one of its own blocks it does the same without waiting.
class SELVIO_EXPORT ConcurrentQueue final : public Queue {
public:
    explicit ConcurrentQueue(const std::string& label, unsigned mostThreads = 64,
                             std::chrono::nanoseconds longestIdle = std::chrono::seconds(10));
    ~ConcurrentQueue() override;

    /// The process's global queue, made on first use.
    static const std::shared_ptr<ConcurrentQueue>& shared();

    void async(Block block) override;
    void asyncAfter(std::chrono::nanoseconds delay, Block block) override;
    [[nodiscard]] bool isCurrent() const override;
    [[nodiscard]] const std::string& label() const override;
    /// How many threads there are at the moment. Any thread.
    [[nodiscard]] unsigned threadCount() const;

private:
    struct SELVIO_HIDDEN State;
    std::shared_ptr<State> state_;
    std::unique_ptr<SerialQueue> timer_;  // only waits; its blocks hand the work on
};

}  // namespace selvio
