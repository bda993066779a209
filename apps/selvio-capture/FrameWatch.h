// Notices when a camera has stopped delivering.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>

namespace selvio::app {

/// Times are a clock's monotonic times. `noteFrame` may be called on any thread, the rest belongs to the main queue.
class FrameWatch {
public:
    static constexpr std::chrono::seconds kLongestPause{2};
    /// Opening a camera takes longer than a frame.
    static constexpr std::chrono::seconds kLongestOpening{10};

    enum class State { Flowing, NeverCame, Stopped };

    explicit FrameWatch(std::chrono::nanoseconds start) : start_(start) {}

    void noteFrame(std::chrono::nanoseconds now) {
        last_ = now.count();
        any_ = true;
    }
    [[nodiscard]] bool anyFrame() const { return any_; }
    [[nodiscard]] State stateAt(std::chrono::nanoseconds now) const {
        if (!any_) return now - start_ > kLongestOpening ? State::NeverCame : State::Flowing;
        return now - std::chrono::nanoseconds(last_) > kLongestPause ? State::Stopped : State::Flowing;
    }

private:
    const std::chrono::nanoseconds start_;
    std::atomic<std::chrono::nanoseconds::rep> last_{0};
    std::atomic<bool> any_{false};
};

}  // namespace selvio::app
