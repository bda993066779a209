// A motion feed that the test speaks for.
#pragma once

#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/platform/MotionManager.h>

#include <utility>

namespace selvio {

class FakeMotionManager final : public MotionManager {
public:
    void setDeviceMotionUpdateInterval(std::chrono::nanoseconds interval) override { interval_ = interval; }
    void startDeviceMotionUpdates(std::shared_ptr<Queue>, Handler handler) override {
        mutex_.set(handler_, std::move(handler));
    }
    void stopDeviceMotionUpdates() override { mutex_.set(handler_, nullptr); }

    /// Hands a reading to the handler, if one is set.
    void rotate(RotationRate rate) {
        if (const auto handler = mutex_.get(handler_)) handler({.rotationRate = rate}, std::nullopt);
    }
    [[nodiscard]] bool isRunning() const { return mutex_.get(handler_) != nullptr; }
    [[nodiscard]] std::chrono::nanoseconds interval() const { return interval_; }

private:
    mutable MemberMutex mutex_;
    Handler handler_;  // guarded by mutex_
    std::chrono::nanoseconds interval_{0};
};

}  // namespace selvio
