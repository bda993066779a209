#include <SelvioFacialCapture/simulated/SimulatedScene.h>

namespace selvio {

using std::chrono::nanoseconds;

SimulatedScene::SimulatedScene(std::shared_ptr<const SimulatedFrames> frames, std::shared_ptr<const Clock> clock)
    : frames_(std::move(frames)), clock_(std::move(clock)) {}

nanoseconds SimulatedScene::begin() {
    const std::lock_guard lock(mutex_);
    if (!origin_) {
        origin_ = clock_->monotonicTime();
        return *origin_;
    }
    return clockTimeLocked();
}

void SimulatedScene::restart() {
    const std::lock_guard lock(mutex_);
    origin_ = clock_->monotonicTime();
    setTime_.reset();
}

void SimulatedScene::setTime(nanoseconds time) {
    const std::lock_guard lock(mutex_);
    if (!origin_) origin_ = clock_->monotonicTime();
    setTime_ = time;
}

nanoseconds SimulatedScene::clockTimeLocked() const {
    return setTime_ ? *origin_ + *setTime_ : clock_->monotonicTime();
}

nanoseconds SimulatedScene::clockTime() const {
    const std::lock_guard lock(mutex_);
    return clockTimeLocked();
}

nanoseconds SimulatedScene::time() const {
    const std::lock_guard lock(mutex_);
    return origin_ ? clockTimeLocked() - *origin_ : nanoseconds(0);
}

nanoseconds SimulatedScene::timeAt(nanoseconds clockTime) const {
    const std::lock_guard lock(mutex_);
    return origin_ ? clockTime - *origin_ : nanoseconds(0);
}

}  // namespace selvio
