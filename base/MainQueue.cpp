#include <SelvioFacialCapture/base/MainQueue.h>

#include <algorithm>
#include <utility>

namespace selvio {

MainQueue::MainQueue(std::shared_ptr<const Clock> clock) : clock_(std::move(clock)) {}

const std::shared_ptr<MainQueue>& MainQueue::shared() {
    static const std::shared_ptr<MainQueue> queue = std::make_shared<MainQueue>();
    return queue;
}

void MainQueue::async(Block block) {
    {
        const std::lock_guard lock(mutex_);
        ready_.push_back(std::move(block));
    }
    wakeUp();
}

void MainQueue::asyncAfter(std::chrono::nanoseconds delay, Block block) {
    const auto due = clock_->monotonicTime() + delay;
    {
        const std::lock_guard lock(mutex_);
        delayed_.emplace(due, std::move(block));
    }
    wakeUp();
}

void MainQueue::wakeUp() {
    changed_.notify_all();
    if (const auto hook = mutex_.get(wakeUpHook_)) (*hook)();
}

bool MainQueue::isCurrent() const {
    const std::lock_guard lock(mutex_);
    return runner_ == std::this_thread::get_id();
}

const std::string& MainQueue::label() const {
    static const std::string name = "main";
    return name;
}

bool MainQueue::runNextBlock() {
    Block block;
    const auto now = clock_->monotonicTime();
    {
        const std::lock_guard lock(mutex_);
        while (!delayed_.empty() && delayed_.begin()->first <= now) {
            ready_.push_back(std::move(delayed_.begin()->second));
            delayed_.erase(delayed_.begin());
        }
        if (ready_.empty()) return false;
        block = std::move(ready_.front());
        ready_.pop_front();
        assert(runner_ == std::thread::id());
        runner_ = std::this_thread::get_id();
    }
    block();
    block = nullptr;
    const std::lock_guard lock(mutex_);
    runner_ = std::thread::id();
    return true;
}

std::size_t MainQueue::drain() {
    std::size_t count = 0;
    while (runNextBlock()) ++count;
    return count;
}

void MainQueue::run() {
    for (;;) {
        while (runNextBlock()) {
            const std::lock_guard lock(mutex_);
            if (quit_) break;
        }
        const auto now = clock_->monotonicTime();
        std::unique_lock<std::mutex> lock(mutex_);
        if (std::exchange(quit_, false)) return;
        if (!ready_.empty()) continue;
        if (delayed_.empty()) {
            changed_.wait(lock);
        } else {
            changed_.wait_for(lock, std::max(delayed_.begin()->first - now, std::chrono::nanoseconds(0)));
        }
    }
}

void MainQueue::quit() {
    {
        const std::lock_guard lock(mutex_);
        quit_ = true;
    }
    changed_.notify_all();
}

std::optional<std::chrono::nanoseconds> MainQueue::timeUntilNextBlock() const {
    const auto now = clock_->monotonicTime();
    const std::lock_guard lock(mutex_);
    if (!ready_.empty()) return std::chrono::nanoseconds(0);
    if (delayed_.empty()) return std::nullopt;
    return std::max(delayed_.begin()->first - now, std::chrono::nanoseconds(0));
}

void MainQueue::setWakeUpHook(std::function<void()> hook) {
    mutex_.set(wakeUpHook_, hook ? std::make_shared<const std::function<void()>>(std::move(hook)) : nullptr);
}

}  // namespace selvio
