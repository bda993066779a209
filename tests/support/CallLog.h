// The calls that fakes received, in order.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace selvio {

/// Copies share one list.
class CallLog {
public:
    void add(std::string call) {
        const std::lock_guard lock(list_->mutex);
        list_->calls.push_back(std::move(call));
    }
    /// What was called since the last call.
    std::vector<std::string> take() {
        const std::lock_guard lock(list_->mutex);
        return std::exchange(list_->calls, {});
    }

private:
    struct List {
        std::mutex mutex;
        std::vector<std::string> calls;  // guarded by mutex
    };
    std::shared_ptr<List> list_ = std::make_shared<List>();
};

}  // namespace selvio
