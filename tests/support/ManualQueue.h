// A queue whose blocks run when the test says so.
#pragma once

#include <SelvioFacialCapture/base/Queue.h>

#include <deque>
#include <map>
#include <utility>

namespace selvio {

struct ManualQueue final : Queue {
    explicit ManualQueue(std::string label = "manual") : label_(std::move(label)) {}

    void async(Block block) override { ready_.push_back(std::move(block)); }
    void asyncAfter(std::chrono::nanoseconds delay, Block block) override {
        delayed_.emplace(now_ + delay, std::move(block));
    }
    bool isCurrent() const override { return running_; }
    const std::string& label() const override { return label_; }

    /// Runs one block; false if none is ready.
    bool runNext() {
        if (ready_.empty()) return false;
        const Block block = std::move(ready_.front());
        ready_.pop_front();
        const bool outer = std::exchange(running_, true);
        block();
        running_ = outer;
        return true;
    }
    /// Runs the ready blocks, those submitted meanwhile included.
    void runAll() {
        while (runNext()) {
        }
    }
    /// Lets the queue's own time pass; blocks that have become due run.
    void advance(std::chrono::nanoseconds time) {
        now_ += time;
        while (!delayed_.empty() && delayed_.begin()->first <= now_) {
            ready_.push_back(std::move(delayed_.begin()->second));
            delayed_.erase(delayed_.begin());
        }
        runAll();
    }
    std::size_t size() const { return ready_.size(); }

private:
    const std::string label_;
    std::deque<Block> ready_;
    std::multimap<std::chrono::nanoseconds, Block> delayed_;
    std::chrono::nanoseconds now_{0};
    bool running_ = false;
};

}  // namespace selvio
