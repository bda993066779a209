// Notices when a camera has stopped delivering.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <utility>

namespace selvio::app {

/// Times are a clock's monotonic times. `noteFrame` may be called on any thread, the rest belongs to the main queue.
class FrameWatch {
public:
    static constexpr std::chrono::seconds kLongestPause{2};
    /// Opening a camera takes longer than a frame.
    static constexpr std::chrono::seconds kLongestOpening{10};
    /// Who looks more rarely was held up, stopped from its terminal for example, and the camera's frames with it.
    static constexpr std::chrono::seconds kLongestLook{1};

    enum class State { Flowing, NeverCame, Stopped };

    explicit FrameWatch(std::chrono::nanoseconds start) : start_(start) {}

    void noteFrame(std::chrono::nanoseconds now) {
        last_ = now.count();
        any_ = true;
    }
    [[nodiscard]] bool anyFrame() const { return any_; }
    /// Look several times a second.
    [[nodiscard]] State stateAt(std::chrono::nanoseconds now) {
        if (now - std::exchange(looked_, now) > kLongestLook) watchedFrom_ = now;
        const auto waited = now - std::max(watchedFrom_, any_ ? std::chrono::nanoseconds(last_) : start_);
        if (any_) return waited > kLongestPause ? State::Stopped : State::Flowing;
        return waited > kLongestOpening ? State::NeverCame : State::Flowing;
    }

private:
    const std::chrono::nanoseconds start_;
    std::chrono::nanoseconds looked_ = std::chrono::nanoseconds::max();  // never
    std::chrono::nanoseconds watchedFrom_{0};
    std::atomic<std::chrono::nanoseconds::rep> last_{0};
    std::atomic<bool> any_{false};
};

}  // namespace selvio::app
