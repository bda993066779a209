#include <SelvioFacialCapture/base/CallGate.h>

#include <algorithm>
#include <new>

namespace selvio {

bool CallGate::enter() noexcept {
    const std::lock_guard lock(mutex_);
    if (closed_) return false;
    try {
        inside_.push_back(std::this_thread::get_id());
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

void CallGate::leave() {
    {
        const std::lock_guard lock(mutex_);
        inside_.erase(std::find(inside_.begin(), inside_.end(), std::this_thread::get_id()));
    }
    left_.notify_all();
}

void CallGate::close() {
    std::unique_lock lock(mutex_);
    closed_ = true;
    if (!isInsideLocked()) left_.wait(lock, [this] { return inside_.empty(); });
}

bool CallGate::isInside() const {
    const std::lock_guard lock(mutex_);
    return isInsideLocked();
}

bool CallGate::isInsideLocked() const {
    return std::find(inside_.begin(), inside_.end(), std::this_thread::get_id()) != inside_.end();
}

}  // namespace selvio
