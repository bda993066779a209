// The calls that fakes received, in order.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace selvio {

class CallLog {
public:
    void add(std::string call) {
        const std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }
    /// What was called since the last call.
    std::vector<std::string> take() {
        const std::lock_guard lock(mutex_);
        return std::exchange(calls_, {});
    }

private:
    std::mutex mutex_;
    std::vector<std::string> calls_;  // guarded by mutex_
};

}  // namespace selvio
