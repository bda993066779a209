#include "platform/simulated/DeliveryPoint.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <utility>

namespace selvio {
namespace {

// The state whose delivery the calling thread is in.
thread_local const void* delivering = nullptr;

}  // namespace

// Held by queued blocks as well, so that the output may go first.
struct DeliveryPoint::State {
    std::mutex mutex;
    std::condition_variable ended;
    std::weak_ptr<CaptureOutputDelegate> delegate;  // guarded by mutex
    std::shared_ptr<Queue> queue;                   // guarded by mutex
    std::uint64_t generation = 0;                   // guarded by mutex; counts the calls of `set`
    int pending = 0;                                // guarded by mutex; of this generation
    int running = 0;                                // guarded by mutex; of any generation
};

DeliveryPoint::DeliveryPoint() : state_(std::make_shared<State>()) {}

void DeliveryPoint::set(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) {
    std::shared_ptr<Queue> before;  // goes after the lock: the end of a queue runs what it still holds
    std::unique_lock lock(state_->mutex);
    before = std::exchange(state_->queue, nullptr);
    const std::uint64_t generation = ++state_->generation;
    if (delivering != state_.get()) state_->ended.wait(lock, [this] { return state_->running == 0; });
    if (state_->generation != generation) return;  // a later call has taken over meanwhile
    state_->delegate = std::move(delegate);
    state_->queue = std::move(queue);
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
    queue->async([state = state_, generation, delivery = std::move(delivery)] {
        std::shared_ptr<CaptureOutputDelegate> delegate;
        {
            const std::lock_guard lock(state->mutex);
            if (state->generation != generation) return;
            delegate = state->delegate.lock();
            ++state->running;
        }
        const void* const outer = std::exchange(delivering, state.get());
        if (delegate != nullptr) delivery(*delegate);
        delegate.reset();  // before the waiting caller of `set` goes on
        delivering = outer;
        const std::lock_guard lock(state->mutex);
        --state->running;
        if (state->generation == generation) --state->pending;
        state->ended.notify_all();
    });
}

}  // namespace selvio
