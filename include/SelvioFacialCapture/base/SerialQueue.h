// A queue with one thread of its own.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/base/Queue.h>

namespace selvio {

/// Runs its blocks one after another on one thread.
/// Destruction runs every block submitted so far (delayed ones at once) and joins the thread; destroyed from one of its
/// own blocks it does the same without joining, and the thread ends by itself after the last block.
class SELVIO_EXPORT SerialQueue final : public Queue {
public:
    explicit SerialQueue(std::string label);
    ~SerialQueue() override;

    void async(Block block) override;
    void asyncAfter(std::chrono::nanoseconds delay, Block block) override;
    [[nodiscard]] bool isCurrent() const override;
    [[nodiscard]] const std::string& label() const override;

    /// Waits until every block submitted before the call has run. Not to be called on this queue.
    void drain();

private:
    struct SELVIO_HIDDEN State;
    std::shared_ptr<State> state_;
};

}  // namespace selvio
