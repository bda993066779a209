// The countdown before the picture, which the host runs when the component asks for it.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureStatus.h>
#include <SelvioFacialCapture/base/Queue.h>

#include <cstdint>
#include <functional>
#include <memory>

namespace selvio::app {

/// Counts whole seconds down on one queue, on which every operation is called. Once it has finished it stays finished:
/// the picture has been asked for.
class Countdown : public std::enable_shared_from_this<Countdown> {
public:
    /// `tick` is called with the seconds left, from the full number down to 1; `finished` a second after that.
    Countdown(std::shared_ptr<Queue> queue, std::int64_t seconds, std::function<void(std::int64_t secondsLeft)> tick,
              std::function<void()> finished);

    /// Starts anew, whatever ran before.
    void start();
    /// A frame was reported with this status. Only with the countdown's own does a countdown continue; it starts one
    /// that does not run, because the component announces no second one for the same run of good frames.
    void follow(SelvioFacialCaptureStatus status);
    /// Neither `tick` nor `finished` is called until the next start.
    void cancel();

private:
    void step(std::uint64_t run, std::int64_t secondsLeft);

    enum class State { Idle, Running, Finished };

    const std::shared_ptr<Queue> queue_;
    const std::int64_t seconds_;
    const std::function<void(std::int64_t)> tick_;
    const std::function<void()> finished_;
    std::uint64_t run_ = 0;  // blocks of an earlier run find another number and end
    State state_ = State::Idle;
};

}  // namespace selvio::app
