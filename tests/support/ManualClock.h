// A clock whose hands the test turns.
#pragma once

#include <SelvioFacialCapture/base/Clock.h>

#include <atomic>
#include <functional>
#include <utility>

namespace selvio {

struct ManualClock final : Clock {
    double secondsSinceReferenceDate() const override { return std::chrono::duration<double>(monotonicTime()).count(); }
    std::chrono::nanoseconds monotonicTime() const override {
        const std::chrono::nanoseconds told(now_.load());  // late, if the call turns the hands
        if (callBack && !std::exchange(calling_, true)) {
            callBack();
            calling_ = false;
        }
        return told;
    }
    void advance(std::chrono::nanoseconds time) { now_ += time.count(); }

    /// Called whenever the clock is asked, but for from within that call. For tests of one thread.
    std::function<void()> callBack;

private:
    std::atomic<std::int64_t> now_{0};
    mutable bool calling_ = false;
};

}  // namespace selvio
