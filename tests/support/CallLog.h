// The calls that fakes received, in order.
#pragma once

#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace selvio {

/// Copies share one list.
class CallLog {
public:
    /// The words of one call.
    void add(const auto&... words) const {
        std::ostringstream call;
        const char* gap = "";
        ((call << std::exchange(gap, " ") << words), ...);
        const std::lock_guard lock(list_->mutex);
        list_->calls.push_back(call.str());
    }
    /// What was called since the last call.
    std::vector<std::string> take() const {
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
