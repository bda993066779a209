#include "Countdown.h"

#include <utility>

namespace selvio::app {

Countdown::Countdown(std::shared_ptr<Queue> queue, std::int64_t seconds, std::function<void(std::int64_t)> tick,
                     std::function<void()> finished)
    : queue_(std::move(queue)), seconds_(seconds), tick_(std::move(tick)), finished_(std::move(finished)) {}

void Countdown::start() {
    SELVIO_ASSERT_ON_QUEUE(queue_);
    if (state_ == State::Finished) return;
    state_ = State::Running;
    step(++run_, seconds_);
}

void Countdown::follow(SelvioFacialCaptureStatus status) {
    if (status != SelvioFacialCaptureStatusCountdown) {
        cancel();
    } else if (state_ == State::Idle) {
        start();
    }
}

void Countdown::cancel() {
    ++run_;
    if (state_ == State::Running) state_ = State::Idle;
}

void Countdown::step(std::uint64_t run, std::int64_t secondsLeft) {
    if (run != run_) return;
    if (secondsLeft <= 0) {
        state_ = State::Finished;
        finished_();
        return;
    }
    tick_(secondsLeft);
    queue_->asyncAfter(std::chrono::seconds(1), [weak = weak_from_this(), run, secondsLeft] {
        if (const auto self = weak.lock()) self->step(run, secondsLeft - 1);
    });
}

}  // namespace selvio::app
