#include <SelvioFacialCapture/base/ConcurrentQueue.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace selvio {
namespace {

thread_local const void* currentState = nullptr;

}  // namespace

// Held by the threads as well, so that the queue object may be destroyed first.
struct ConcurrentQueue::State : std::enable_shared_from_this<State> {
    State(std::string name, unsigned most, std::chrono::nanoseconds idleTime)
        : label(std::move(name)), mostThreads(most), longestIdle(idleTime) {}

    const std::string label;
    const unsigned mostThreads;
    const std::chrono::nanoseconds longestIdle;
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Block> ready;  // guarded by mutex
    bool ending = false;      // guarded by mutex
    unsigned threads = 0;     // guarded by mutex
    std::size_t idle = 0;     // guarded by mutex; how many of the threads wait

    void submit(Block block) {
        const std::lock_guard lock(mutex);
        ready.push_back(std::move(block));
        if (ready.size() <= idle) {
            changed.notify_one();
        } else if (threads < mostThreads) {
            startThread();
        }
    }

    // With the mutex held.
    void startThread() {
        try {
            std::thread([state = shared_from_this()] { state->run(); }).detach();
            ++threads;
        } catch (const std::system_error&) {
            if (threads == 0) throw;  // else an existing thread takes the block
        }
    }

    void run() {
        currentState = this;
        std::unique_lock lock(mutex);
        while (waitForBlock(lock)) {
            Block block = std::move(ready.front());
            ready.pop_front();
            lock.unlock();
            block();
            block = nullptr;
            lock.lock();
        }
        if (--threads == 0) changed.notify_all();  // for the destructor
    }

    bool waitForBlock(std::unique_lock<std::mutex>& lock) {
        ++idle;
        changed.wait_for(lock, longestIdle, [this] { return ending || !ready.empty(); });
        --idle;
        return !ready.empty();
    }
};

ConcurrentQueue::ConcurrentQueue(const std::string& label, unsigned mostThreads, std::chrono::nanoseconds longestIdle)
    : state_(std::make_shared<State>(label, mostThreads, longestIdle)),
      timer_(std::make_unique<SerialQueue>(label + ".timer")) {}

ConcurrentQueue::~ConcurrentQueue() {
    timer_.reset();  // submits its delayed blocks now
    std::unique_lock lock(state_->mutex);
    state_->ending = true;
    state_->changed.notify_all();
    if (!isCurrent()) state_->changed.wait(lock, [this] { return state_->threads == 0; });
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

unsigned ConcurrentQueue::threadCount() const {
    const std::lock_guard lock(state_->mutex);
    return state_->threads;
}

}  // namespace selvio
