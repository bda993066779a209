// The component's queues, held by the program.
#pragma once

#include <SelvioFacialCapture/base/SerialQueue.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace selvio::app {

/// Makes queues and keeps them to its own end, where their blocks have run and their threads are joined. Without it the
/// last block of a queue may turn out to be the last owner of its object, and a thread would still be about when the
/// program ends.
class KeptQueues {
public:
    KeptQueues() = default;
    KeptQueues(const KeptQueues&) = delete;
    KeptQueues& operator=(const KeptQueues&) = delete;
    /// Runs every block, those that blocks of other queues submit included, while the queues are still held: who owns
    /// one besides is gone afterwards.
    ~KeptQueues() {
        for (int round = 0; round < 2; ++round) {
            for (const auto& queue : queues_) queue->drain();
        }
    }

    /// Any thread.
    std::shared_ptr<Queue> make(const std::string& label) {
        const std::lock_guard lock(mutex_);
        return queues_.emplace_back(std::make_shared<SerialQueue>(label));
    }

private:
    std::mutex mutex_;
    std::vector<std::shared_ptr<SerialQueue>> queues_;  // guarded by mutex_
};

}  // namespace selvio::app
