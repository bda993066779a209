// Keeps calls to a host from running on once the host has been promised that they ended.
#pragma once

#include <SelvioFacialCapture/base/Export.h>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace selvio {

/// Lets calls through until it is closed. Any thread.
class SELVIO_EXPORT CallGate {
public:
    /// Makes the call on the calling thread, unless the gate is closed. No lock is held.
    template <typename Call>
    void pass(const Call& call) {
        if (!enter()) return;
        call();
        leave();
    }
    /// From its return on no call begins any more and none runs on another thread. From inside a call it does not wait:
    /// two calls that close would wait for each other.
    void close();
    /// Whether the calling thread is inside a call.
    [[nodiscard]] bool isInside() const;

private:
    /// False when it is closed; when there is no memory, too.
    bool enter() noexcept;
    void leave();
    [[nodiscard]] bool isInsideLocked() const;

    mutable std::mutex mutex_;
    std::condition_variable left_;
    bool closed_ = false;                  // guarded by mutex_
    std::vector<std::thread::id> inside_;  // guarded by mutex_; an entry for every call that runs
};

}  // namespace selvio
