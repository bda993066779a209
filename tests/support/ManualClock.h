// A clock whose hands the test turns.
#pragma once

#include <SelvioFacialCapture/base/Clock.h>

#include <atomic>

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

}  // namespace selvio
