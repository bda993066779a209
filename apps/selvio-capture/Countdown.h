// The countdown before the picture, which the host runs when the component asks for it.
#pragma once

#include <SelvioFacialCapture/base/Queue.h>

#include <cstdint>
#include <functional>
#include <memory>

namespace selvio::app {

/// Counts whole seconds down on one queue, on which every operation is called.
class Countdown : public std::enable_shared_from_this<Countdown> {
public:
    /// `tick` is called with the seconds left, from the full number down to 1; `finished` a second after that.
    Countdown(std::shared_ptr<Queue> queue, std::function<void(std::int64_t secondsLeft)> tick,
              std::function<void()> finished);

    /// Starts anew, whatever ran before.
    void start(std::int64_t seconds);
    /// Neither `tick` nor `finished` is called until the next start.
    void cancel();
    [[nodiscard]] bool isRunning() const { return running_; }

private:
    void step(std::uint64_t run, std::int64_t secondsLeft);

    const std::shared_ptr<Queue> queue_;
    const std::function<void(std::int64_t)> tick_;
    const std::function<void()> finished_;
    std::uint64_t run_ = 0;  // blocks of an earlier run find another number and end
    bool running_ = false;
};

}  // namespace selvio::app
