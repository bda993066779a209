// A motion feed that the test speaks for.
#pragma once

#include <SelvioFacialCapture/platform/MotionManager.h>

#include <mutex>
#include <utility>

namespace selvio {

class FakeMotionManager final : public MotionManager {
public:
    void setDeviceMotionUpdateInterval(std::chrono::nanoseconds interval) override { interval_ = interval; }
    void startDeviceMotionUpdates(std::shared_ptr<Queue> queue, Handler handler) override {
        const std::lock_guard lock(mutex_);
        handler_ = std::move(handler);
        queue_ = std::move(queue);
    }
    void stopDeviceMotionUpdates() override {
        const std::lock_guard lock(mutex_);
        handler_ = nullptr;
    }

    /// Hands a reading to the handler, if one is set.
    void rotate(RotationRate rate) {
        Handler handler;
        {
            const std::lock_guard lock(mutex_);
            handler = handler_;
        }
        if (handler) handler({.rotationRate = rate}, std::nullopt);
    }
    [[nodiscard]] bool isRunning() const {
        const std::lock_guard lock(mutex_);
        return handler_ != nullptr;
    }
    [[nodiscard]] std::shared_ptr<Queue> queue() const {
        const std::lock_guard lock(mutex_);
        return queue_;
    }
    [[nodiscard]] std::chrono::nanoseconds interval() const { return interval_; }

private:
    mutable std::mutex mutex_;
    Handler handler_;               // guarded by mutex_
    std::shared_ptr<Queue> queue_;  // guarded by mutex_
    std::chrono::nanoseconds interval_{0};
};

}  // namespace selvio
