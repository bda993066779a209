// A motion feed that the test speaks for.
#pragma once

#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/platform/MotionManager.h>

#include <atomic>
#include <functional>
#include <utility>

namespace selvio {

class FakeMotionManager final : public MotionManager {
public:
    void setDeviceMotionUpdateInterval(std::chrono::nanoseconds value) override { interval = value; }
    void startDeviceMotionUpdates(std::shared_ptr<Queue>, Handler handler) override {
        mutex_.set(handler_, std::move(handler));
        duringCalls();
    }
    void stopDeviceMotionUpdates() override {
        mutex_.set(handler_, nullptr);
        duringCalls();
    }

    /// Hands a reading to the handler, if one is set.
    void rotate(RotationRate rate) {
        if (const auto handler = mutex_.get(handler_)) handler({.rotationRate = rate}, std::nullopt);
    }
    bool isRunning() const { return mutex_.get(handler_) != nullptr; }

    std::function<void()> duringCalls = [] {};
    std::atomic<std::chrono::nanoseconds> interval{};

private:
    mutable MemberMutex mutex_;
    Handler handler_;  // guarded by mutex_
};

}  // namespace selvio
