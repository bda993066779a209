// A clock whose hands the test turns.
#pragma once

#include <SelvioFacialCapture/base/Clock.h>

#include <atomic>
#include <functional>
#include <utility>

namespace selvio {

class ManualClock final : public Clock {
public:
    [[nodiscard]] double secondsSinceReferenceDate() const override {
        return std::chrono::duration<double>(monotonicTime()).count();
    }
    [[nodiscard]] std::chrono::nanoseconds monotonicTime() const override {
        return std::chrono::nanoseconds(now_.load());
    }
    void advance(std::chrono::nanoseconds time) { now_ += time.count(); }

private:
    std::atomic<std::int64_t> now_{0};
};

/// The system's clock, which calls back whenever it is asked but for from within that call.
class CallingClock final : public Clock {
public:
    explicit CallingClock(std::function<void()> callBack) : callBack_(std::move(callBack)) {}
    [[nodiscard]] double secondsSinceReferenceDate() const override {
        call();
        return SystemClock().secondsSinceReferenceDate();
    }
    [[nodiscard]] std::chrono::nanoseconds monotonicTime() const override {
        call();
        return SystemClock().monotonicTime();
    }

private:
    void call() const {
        if (calling_) return;
        calling_ = true;
        callBack_();
        calling_ = false;
    }

    static inline thread_local bool calling_ = false;
    const std::function<void()> callBack_;
};

}  // namespace selvio
