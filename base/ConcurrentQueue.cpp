#include <SelvioFacialCapture/base/ConcurrentQueue.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace selvio {
namespace {

thread_local const void* currentState = nullptr;

}  // namespace

// Held by the threads as well, so that the queue object may go first.
struct ConcurrentQueue::State {
    explicit State(std::string name) : label(std::move(name)) {}

    const std::string label;
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Block> ready;  // guarded by mutex
    bool ending = false;      // guarded by mutex
    std::vector<std::thread> threads;

    void submit(Block block) {
        {
            const std::lock_guard lock(mutex);
            ready.push_back(std::move(block));
        }
        changed.notify_one();
    }

    void run() {
        currentState = this;
        std::unique_lock lock(mutex);
        for (;;) {
            changed.wait(lock, [this] { return ending || !ready.empty(); });
            if (ready.empty()) return;
            Block block = std::move(ready.front());
            ready.pop_front();
            lock.unlock();
            block();
            block = nullptr;
            lock.lock();
        }
    }
};

ConcurrentQueue::ConcurrentQueue(const std::string& label, unsigned threads)
    : state_(std::make_shared<State>(label)), timer_(std::make_unique<SerialQueue>(label + ".timer")) {
    for (unsigned i = 0; i < threads; ++i) state_->threads.emplace_back([state = state_] { state->run(); });
}

ConcurrentQueue::~ConcurrentQueue() {
    timer_.reset();  // hands its blocks on now
    const bool fromOwnBlock = isCurrent();
    {
        const std::lock_guard lock(state_->mutex);
        state_->ending = true;
    }
    state_->changed.notify_all();
    for (std::thread& thread : state_->threads) fromOwnBlock ? thread.detach() : thread.join();
}

const std::shared_ptr<ConcurrentQueue>& ConcurrentQueue::shared() {
    static const std::shared_ptr<ConcurrentQueue> queue = std::make_shared<ConcurrentQueue>("global.default");
    return queue;
}

// A block may destroy the queue before the submitting call has returned, hence the reference to the state.
void ConcurrentQueue::async(Block block) {
    const std::shared_ptr<State> state = state_;
    state->submit(std::move(block));
}

void ConcurrentQueue::asyncAfter(std::chrono::nanoseconds delay, Block block) {
    timer_->asyncAfter(delay,
                       [state = state_, block = std::move(block)]() mutable { state->submit(std::move(block)); });
}

bool ConcurrentQueue::isCurrent() const {
    return currentState == state_.get();
}

const std::string& ConcurrentQueue::label() const {
    return state_->label;
}

}  // namespace selvio
