#include "platform/linux/sensors/IioGyroscope.h"

#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/linux/Sensors.h>

#include <algorithm>
#include <atomic>
#include <mutex>

namespace selvio {
namespace {

using std::chrono::nanoseconds;

class IioMotionManager final : public MotionManager {
public:
    explicit IioMotionManager(SensorOptions options) : options_(std::move(options)) {}
    ~IioMotionManager() override { stopDeviceMotionUpdates(); }

    void setDeviceMotionUpdateInterval(nanoseconds interval) override {
        interval_ = std::clamp<nanoseconds>(interval, std::chrono::milliseconds(1), std::chrono::seconds(10));
    }

    void startDeviceMotionUpdates(std::shared_ptr<Queue> queue, Handler handler) override {
        const std::lock_guard lock(mutex_);
        stop();
        auto gyroscope = queue && handler ? IioGyroscope::find(options_.iioDirectory) : std::nullopt;
        if (!gyroscope) return;
        feed_.reset(new Feed{std::move(queue), std::move(handler), std::move(*gyroscope)});
        worker_ = std::make_unique<SerialQueue>("gyroscope");
        worker_->async(
            [this, &worker = *worker_, feed = feed_] { read(worker, feed, std::chrono::steady_clock::now()); });
    }

    void stopDeviceMotionUpdates() override {
        const std::lock_guard lock(mutex_);
        stop();
    }

private:
    struct Feed {
        const std::shared_ptr<Queue> queue;
        const Handler handler;
        const IioGyroscope gyroscope;
        std::atomic<bool> stopped{false};
        std::atomic<bool> waiting{false};  // a reading lies on the queue
    };

    // With mutex_ held. The worker never runs a handler, so that a handler may stop the updates.
    void stop() {
        if (feed_) feed_->stopped = true;
        worker_.reset();
        feed_.reset();
    }

    void read(SerialQueue& worker, const std::shared_ptr<Feed>& feed, std::chrono::steady_clock::time_point due) {
        if (feed->stopped) return;
        // A queue that is behind gets the next reading when it has taken this one.
        if (!feed->waiting.exchange(true)) {
            const auto rate = feed->gyroscope.read();
            feed->queue->async([feed, rate] {
                feed->waiting = false;
                feed->handler(rate ? DeviceMotion{rate.value()} : DeviceMotion{},
                              rate ? std::nullopt : std::optional(rate.error()));
            });
        }
        const auto now = std::chrono::steady_clock::now();
        const auto next = std::max(due + interval_.load(), now);
        worker.asyncAfter(next - now, [this, &worker, feed, next] { read(worker, feed, next); });
    }

    const SensorOptions options_;
    std::atomic<nanoseconds> interval_{std::chrono::milliseconds(10)};
    std::mutex mutex_;                     // one start or stop at a time
    std::shared_ptr<Feed> feed_;           // guarded by mutex_
    std::unique_ptr<SerialQueue> worker_;  // guarded by mutex_
};

}  // namespace

std::shared_ptr<MotionManager> makeIioMotionManager(SensorOptions options) {
    return std::make_shared<IioMotionManager>(std::move(options));
}

}  // namespace selvio
