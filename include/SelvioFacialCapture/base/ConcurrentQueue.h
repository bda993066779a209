// The global queue of default priority.
#pragma once

#include <SelvioFacialCapture/base/SerialQueue.h>

namespace selvio {

/// Runs blocks on a small number of threads of its own, in any order. Destruction runs what was submitted (delayed
/// blocks at once) and joins; from one of its own blocks it does the same without joining.
class ConcurrentQueue final : public Queue {
public:
    explicit ConcurrentQueue(const std::string& label, unsigned threads = 2);
    ~ConcurrentQueue() override;

    /// The process's global queue, made on first use.
    static const std::shared_ptr<ConcurrentQueue>& shared();

    void async(Block block) override;
    void asyncAfter(std::chrono::nanoseconds delay, Block block) override;
    [[nodiscard]] bool isCurrent() const override;
    [[nodiscard]] const std::string& label() const override;

private:
    struct State;
    std::shared_ptr<State> state_;
    std::unique_ptr<SerialQueue> timer_;  // only waits; its blocks hand the work on
};

}  // namespace selvio
