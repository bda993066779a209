#include "IioGyroscope.h"

#include <SelvioFacialCapture/linux/Sensors.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

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
        feed_ = std::make_shared<Feed>();
        feed_->queue = std::move(queue);
        feed_->handler = std::move(handler);
        thread_ = std::thread([this, feed = feed_, gyroscope = std::move(*gyroscope)] { run(*feed, feed, gyroscope); });
    }

    void stopDeviceMotionUpdates() override {
        const std::lock_guard lock(mutex_);
        stop();
    }

private:
    struct Feed {
        std::shared_ptr<Queue> queue;
        Handler handler;
        std::mutex mutex;
        std::condition_variable changed;
        bool stopped = false;              // guarded by mutex
        std::atomic<bool> waiting{false};  // a reading lies on the queue
    };

    // With mutex_ held. The thread never runs a handler, so that a handler may stop the updates.
    void stop() {
        if (!feed_) return;
        {
            const std::lock_guard lock(feed_->mutex);
            feed_->stopped = true;
        }
        feed_->changed.notify_all();
        thread_.join();
        feed_.reset();
    }

    void run(Feed& feed, const std::shared_ptr<Feed>& keeper, const IioGyroscope& gyroscope) const {
        auto next = std::chrono::steady_clock::now();
        std::unique_lock lock(feed.mutex);
        while (!feed.stopped) {
            lock.unlock();
            // A queue that is behind gets the next reading when it has taken this one.
            if (!feed.waiting.exchange(true)) {
                const auto rate = gyroscope.read();
                feed.queue->async([keeper, rate] {
                    keeper->waiting = false;
                    keeper->handler(rate ? DeviceMotion{rate.value()} : DeviceMotion{},
                                    rate ? std::nullopt : std::optional(rate.error()));
                });
            }
            lock.lock();
            next = std::max(next + interval_.load(), std::chrono::steady_clock::now());
            feed.changed.wait_until(lock, next, [&] { return feed.stopped; });
        }
    }

    const SensorOptions options_;
    std::atomic<nanoseconds> interval_{std::chrono::milliseconds(10)};
    std::mutex mutex_;            // one start or stop at a time
    std::shared_ptr<Feed> feed_;  // guarded by mutex_
    std::thread thread_;          // guarded by mutex_
};

}  // namespace

std::shared_ptr<MotionManager> makeIioMotionManager(SensorOptions options) {
    return std::make_shared<IioMotionManager>(std::move(options));
}

}  // namespace selvio
