#include "Countdown.h"

#include <utility>

namespace selvio::app {

Countdown::Countdown(std::shared_ptr<Queue> queue, std::function<void(std::int64_t)> tick,
                     std::function<void()> finished)
    : queue_(std::move(queue)), tick_(std::move(tick)), finished_(std::move(finished)) {}

void Countdown::start(std::int64_t seconds) {
    SELVIO_ASSERT_ON_QUEUE(queue_);
    running_ = true;
    step(++run_, seconds);
}

void Countdown::cancel() {
    ++run_;
    running_ = false;
}

void Countdown::step(std::uint64_t run, std::int64_t secondsLeft) {
    if (run != run_) return;
    if (secondsLeft <= 0) {
        running_ = false;
        finished_();
        return;
    }
    tick_(secondsLeft);
    queue_->asyncAfter(std::chrono::seconds(1), [weak = weak_from_this(), run, secondsLeft] {
        if (const auto self = weak.lock()) self->step(run, secondsLeft - 1);
    });
}

}  // namespace selvio::app
