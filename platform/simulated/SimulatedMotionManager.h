// A motion sensor that reads the scene's script.
#pragma once

#include <SelvioFacialCapture/platform/MotionManager.h>
#include <SelvioFacialCapture/simulated/SimulatedScene.h>

#include <mutex>

namespace selvio {

/// Calls the handler once an interval with the script's rotation rate of that moment. Needs no thread: it lives on
/// delayed blocks of the queue.
class SimulatedMotionManager final : public MotionManager {
public:
    explicit SimulatedMotionManager(std::shared_ptr<SimulatedScene> scene);
    ~SimulatedMotionManager() override;

    /// 0.1 seconds at first; takes effect with the next start. Intervals below 1 ms count as 1 ms.
    void setDeviceMotionUpdateInterval(std::chrono::nanoseconds interval) override;
    void startDeviceMotionUpdates(std::shared_ptr<Queue> queue, Handler handler) override;
    void stopDeviceMotionUpdates() override;

private:
    struct Feed;
    const std::shared_ptr<SimulatedScene> scene_;
    std::mutex mutex_;
    std::chrono::nanoseconds interval_{100'000'000};  // guarded by mutex_
    std::shared_ptr<Feed> feed_;                      // guarded by mutex_
};

}  // namespace selvio
