#include "platform/simulated/SimulatedMotionManager.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace selvio {
namespace {

constexpr std::chrono::nanoseconds kShortestInterval{1'000'000};

}  // namespace

// One start. Queued blocks hold it weakly: a queue that runs its delayed blocks at once when it ends must find nothing
// to go on with.
struct SimulatedMotionManager::Feed : std::enable_shared_from_this<Feed> {
    std::shared_ptr<SimulatedScene> scene;
    std::shared_ptr<Queue> queue;
    std::chrono::nanoseconds interval{};
    Handler handler;
    std::atomic<bool> stopped{false};

    void scheduleNext() {
        queue->asyncAfter(interval, [weak = weak_from_this()] {
            const auto self = weak.lock();
            if (self == nullptr || self->stopped) return;
            self->handler({.rotationRate = self->scene->state().rotationRate}, std::nullopt);
            if (!self->stopped) self->scheduleNext();
        });
    }
};

SimulatedMotionManager::SimulatedMotionManager(std::shared_ptr<SimulatedScene> scene) : scene_(std::move(scene)) {}

SimulatedMotionManager::~SimulatedMotionManager() {
    stopDeviceMotionUpdates();
}

void SimulatedMotionManager::setDeviceMotionUpdateInterval(std::chrono::nanoseconds interval) {
    const std::lock_guard lock(mutex_);
    interval_ = std::max(interval, kShortestInterval);
}

void SimulatedMotionManager::startDeviceMotionUpdates(std::shared_ptr<Queue> queue, Handler handler) {
    if (queue == nullptr || !handler) {
        stopDeviceMotionUpdates();
        return;
    }
    scene_->begin();
    auto feed = std::make_shared<Feed>();
    feed->scene = scene_;
    feed->queue = std::move(queue);
    feed->handler = std::move(handler);
    std::shared_ptr<Feed> before;
    {
        const std::lock_guard lock(mutex_);
        feed->interval = interval_;
        before = std::exchange(feed_, feed);
    }
    if (before != nullptr) before->stopped = true;
    feed->scheduleNext();
}

void SimulatedMotionManager::stopDeviceMotionUpdates() {
    std::shared_ptr<Feed> before;  // goes outside of the lock: its queue may run blocks as it ends
    {
        const std::lock_guard lock(mutex_);
        before = std::exchange(feed_, nullptr);
    }
    if (before != nullptr) before->stopped = true;
}

}  // namespace selvio
