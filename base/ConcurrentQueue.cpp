#include <SelvioFacialCapture/base/ConcurrentQueue.h>

#include <SelvioFacialCapture/base/SerialQueue.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace selvio {
namespace {

thread_local const void* currentState = nullptr;

}  // namespace

struct ConcurrentQueue::State {
    explicit State(std::string name) : label(std::move(name)), timer(std::make_unique<SerialQueue>(label + ".timer")) {}

    const std::string label;
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Block> ready;  // guarded by mutex
    bool ending = false;      // guarded by mutex
    std::vector<std::thread> threads;
    std::unique_ptr<SerialQueue> timer;  // only waits; its blocks hand the work on

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

ConcurrentQueue::ConcurrentQueue(std::string label, unsigned threads) : state_(std::make_shared<State>(std::move(label))) {
    for (unsigned i = 0; i < threads; ++i) state_->threads.emplace_back([state = state_.get()] { state->run(); });
}

ConcurrentQueue::~ConcurrentQueue() {
    assert(!isCurrent());
    state_->timer.reset();  // hands its blocks on now
    {
        const std::lock_guard lock(state_->mutex);
        state_->ending = true;
    }
    state_->changed.notify_all();
    for (std::thread& thread : state_->threads) thread.join();
}

const std::shared_ptr<ConcurrentQueue>& ConcurrentQueue::shared() {
    static const std::shared_ptr<ConcurrentQueue> queue = std::make_shared<ConcurrentQueue>("global.default");
    return queue;
}

void ConcurrentQueue::async(Block block) {
    {
        const std::lock_guard lock(state_->mutex);
        state_->ready.push_back(std::move(block));
    }
    state_->changed.notify_one();
}

void ConcurrentQueue::asyncAfter(std::chrono::nanoseconds delay, Block block) {
    state_->timer->asyncAfter(delay, [this, block = std::move(block)]() mutable { async(std::move(block)); });
}

bool ConcurrentQueue::isCurrent() const {
    return currentState == state_.get();
}

const std::string& ConcurrentQueue::label() const {
    return state_->label;
}

}  // namespace selvio
