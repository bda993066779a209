#include "platform/simulated/DeliveryPoint.h"

#include <cstdint>
#include <mutex>
#include <utility>

namespace selvio {

// Held weakly by queued blocks, because it holds their queue.
struct DeliveryPoint::State {
    std::mutex mutex;
    std::weak_ptr<CaptureOutputDelegate> delegate;  // guarded by mutex
    std::shared_ptr<Queue> queue;                   // guarded by mutex
    std::uint64_t generation = 0;                   // guarded by mutex; counts the calls of `set`
    int pending = 0;                                // guarded by mutex; of this generation
};

DeliveryPoint::DeliveryPoint() : state_(std::make_shared<State>()) {}

void DeliveryPoint::set(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) {
    std::shared_ptr<Queue> before =
        std::move(queue);  // goes after the lock: the end of a queue runs what it still holds
    const std::lock_guard lock(state_->mutex);
    state_->queue.swap(before);
    state_->delegate = std::move(delegate);
    ++state_->generation;
    state_->pending = 0;
}

bool DeliveryPoint::isSet() const {
    const std::lock_guard lock(state_->mutex);
    return state_->queue != nullptr && !state_->delegate.expired();
}

int DeliveryPoint::pending() const {
    const std::lock_guard lock(state_->mutex);
    return state_->pending;
}

void DeliveryPoint::submit(Delivery delivery) {
    std::shared_ptr<Queue> queue;
    std::uint64_t generation = 0;
    {
        const std::lock_guard lock(state_->mutex);
        if (state_->queue == nullptr || state_->delegate.expired()) return;
        queue = state_->queue;
        generation = state_->generation;
        ++state_->pending;
    }
    queue->async([weakState = std::weak_ptr(state_), generation, delivery = std::move(delivery)] {
        const auto state = weakState.lock();
        if (state == nullptr) return;
        std::shared_ptr<CaptureOutputDelegate> delegate;
        {
            const std::lock_guard lock(state->mutex);
            if (state->generation != generation) return;
            delegate = state->delegate.lock();
        }
        if (delegate != nullptr) delivery(*delegate);
        const std::lock_guard lock(state->mutex);
        if (state->generation == generation) --state->pending;
    });
}

}  // namespace selvio
