// The global queue of default priority.
#pragma once

#include <SelvioFacialCapture/base/Queue.h>

namespace selvio {

/// Runs blocks on a small number of threads of its own, in any order. Destruction runs what was submitted and joins.
class ConcurrentQueue final : public Queue {
public:
    explicit ConcurrentQueue(std::string label, unsigned threads = 2);
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
};

}  // namespace selvio
