#include <SelvioFacialCapture/base/SerialQueue.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

namespace selvio {
namespace {

// The queue state whose block the calling thread is running.
thread_local const void* currentState = nullptr;

}  // namespace

// Held by the thread as well, so that the queue object may be destroyed first.
struct SerialQueue::State {
    using Time = std::chrono::steady_clock::time_point;

    explicit State(std::string name) : label(std::move(name)) {}

    const std::string label;
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Block> ready;             // guarded by mutex
    std::multimap<Time, Block> delayed;  // guarded by mutex
    bool ending = false;                 // guarded by mutex
    std::thread thread;

    void run() {
        currentState = this;
        std::unique_lock lock(mutex);
        for (;;) {
            const Time now = std::chrono::steady_clock::now();
            while (!delayed.empty() && (ending || delayed.begin()->first <= now)) {
                ready.push_back(std::move(delayed.begin()->second));
                delayed.erase(delayed.begin());
            }
            if (!ready.empty()) {
                Block block = std::move(ready.front());
                ready.pop_front();
                lock.unlock();
                block();
                block = nullptr;  // what it held is destroyed before the next block runs
                lock.lock();
            } else if (ending) {
                return;
            } else if (delayed.empty()) {
                changed.wait(lock);
            } else {
                changed.wait_until(lock, Time(delayed.begin()->first));
            }
        }
    }
};

SerialQueue::SerialQueue(std::string label) : state_(std::make_shared<State>(std::move(label))) {
    state_->thread = std::thread([state = state_] { state->run(); });
}

SerialQueue::~SerialQueue() {
    {
        const std::lock_guard lock(state_->mutex);
        state_->ending = true;
    }
    state_->changed.notify_all();
    if (isCurrent()) {
        state_->thread.detach();
    } else {
        state_->thread.join();
    }
}

// The block may destroy the queue before the submitting call has returned, hence the reference to the state.
void SerialQueue::async(Block block) {
    const std::shared_ptr<State> state = state_;
    {
        const std::lock_guard lock(state->mutex);
        state->ready.push_back(std::move(block));
    }
    state->changed.notify_all();
}

void SerialQueue::asyncAfter(std::chrono::nanoseconds delay, Block block) {
    const std::shared_ptr<State> state = state_;
    {
        const std::lock_guard lock(state->mutex);
        state->delayed.emplace(std::chrono::steady_clock::now() + delay, std::move(block));
    }
    state->changed.notify_all();
}

bool SerialQueue::isCurrent() const {
    return currentState == state_.get();
}

const std::string& SerialQueue::label() const {
    return state_->label;
}

void SerialQueue::drain() {
    assert(!isCurrent());
    std::mutex mutex;
    std::condition_variable done;
    bool ran = false;
    async([&] {
        const std::lock_guard lock(mutex);
        ran = true;
        done.notify_one();
    });
    std::unique_lock lock(mutex);
    done.wait(lock, [&] { return ran; });
}

}  // namespace selvio
