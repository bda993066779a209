// A motion feed that the test speaks for.
#pragma once

#include <SelvioFacialCapture/platform/MotionManager.h>

#include <mutex>
#include <utility>

namespace selvio {

class FakeMotionManager final : public MotionManager {
public:
    void setDeviceMotionUpdateInterval(std::chrono::nanoseconds interval) override { interval_ = interval; }
    void startDeviceMotionUpdates(std::shared_ptr<Queue>, Handler handler) override {
        const std::lock_guard lock(mutex_);
        handler_ = std::move(handler);
        ++starts_;
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
    [[nodiscard]] int starts() const { return starts_; }
    [[nodiscard]] std::chrono::nanoseconds interval() const { return interval_; }

private:
    mutable std::mutex mutex_;
    Handler handler_;  // guarded by mutex_
    int starts_ = 0;
    std::chrono::nanoseconds interval_{0};
};

}  // namespace selvio
