#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/simulated/SimulatedPlatform.h>

#include <algorithm>
#include <cmath>

#include "platform/simulated/SimulatedSession.h"

namespace selvio {
namespace {

using std::chrono::nanoseconds;

/// Does not look at the picture: while the script's face is visible it returns exactly one face, the script's first,
/// smiling as the script says at this moment. For scripts whose person has to smile or to stop smiling, which one
/// photograph cannot show.
class SimulatedFaceDetector final : public FaceDetector {
public:
    explicit SimulatedFaceDetector(std::shared_ptr<SimulatedScene> scene) : scene_(std::move(scene)) {}

    std::vector<FaceFeature> featuresInImage(const Image& image, bool smile) override {
        if (!image.bitmap) return {};
        const auto time = scene_->time();
        const auto faces = scene_->frames().trueGeometry(time, image.bitmap->width(), image.bitmap->height());
        if (faces.empty()) return {};
        // a square as wide as the jaw, from the jaw's ends downwards and upwards
        const FrameFace& face = faces.front();
        const double side = std::hypot(face.jawRight.x - face.jawLeft.x, face.jawRight.y - face.jawLeft.y);
        const Point middle{(face.jawLeft.x + face.jawRight.x) / 2, (face.jawLeft.y + face.jawRight.y) / 2};
        const Rect bounds{middle.x - side / 2, middle.y - side / 4, side, side};
        return {{.bounds = bounds, .hasSmile = smile && scene_->frames().script().stateAt(time).smiling}};
    }

private:
    const std::shared_ptr<SimulatedScene> scene_;
};

/// Calls the handler once an interval with the script's rotation rate of that moment. Needs no thread: it lives on
/// delayed blocks of the queue.
class SimulatedMotionManager final : public MotionManager {
public:
    explicit SimulatedMotionManager(std::shared_ptr<SimulatedScene> scene) : scene_(std::move(scene)) {}

    /// 0.1 seconds at first; takes effect with the next start. Intervals below 1 ms count as 1 ms.
    void setDeviceMotionUpdateInterval(nanoseconds interval) override {
        mutex_.set(interval_, std::max<nanoseconds>(interval, std::chrono::milliseconds(1)));
    }

    void startDeviceMotionUpdates(std::shared_ptr<Queue> queue, Handler handler) override {
        if (!queue || !handler) return stopDeviceMotionUpdates();
        scene_->begin();
        const auto feed = std::make_shared<Feed>(scene_, std::move(queue), mutex_.get(interval_), std::move(handler));
        mutex_.set(feed_, feed);
        feed->scheduleNext();
    }

    void stopDeviceMotionUpdates() override { mutex_.set(feed_, nullptr); }

private:
    /// One start, over when nobody holds it. Queued blocks hold it weakly: a queue that runs its delayed blocks at once
    /// when it ends must find nothing to continue with.
    class Feed : public std::enable_shared_from_this<Feed> {
    public:
        Feed(std::shared_ptr<SimulatedScene> scene, std::shared_ptr<Queue> queue, nanoseconds interval, Handler handler)
            : scene_(std::move(scene)), queue_(std::move(queue)), interval_(interval), handler_(std::move(handler)) {}

        void scheduleNext() {
            queue_->asyncAfter(interval_, [weak = weak_from_this()] {
                const auto self = weak.lock();
                if (!self) return;
                self->handler_({.rotationRate = self->scene_->state().rotationRate}, std::nullopt);
                self->scheduleNext();
            });
        }

    private:
        const std::shared_ptr<SimulatedScene> scene_;
        const std::shared_ptr<Queue> queue_;
        const nanoseconds interval_;
        const Handler handler_;
    };

    const std::shared_ptr<SimulatedScene> scene_;
    MemberMutex mutex_;
    nanoseconds interval_{100'000'000};  // guarded by mutex_
    std::shared_ptr<Feed> feed_;         // guarded by mutex_
};

/// The layer of a view without a screen. Any thread.
class SimulatedPreviewLayer final : public PlainPreviewLayer {
public:
    /// Null for a session of another capture system, too.
    [[nodiscard]] std::shared_ptr<CaptureConnection> connection() const override {
        const auto simulated = std::dynamic_pointer_cast<SimulatedSession>(session());
        return simulated ? simulated->previewConnection() : nullptr;
    }
    /// The bounds scaled to the layer's size.
    [[nodiscard]] MetadataObject transformedMetadataObject(const MetadataObject& object) const override {
        const Size layer = size();
        MetadataObject scaled = object;
        scaled.bounds = {object.bounds.x * layer.width, object.bounds.y * layer.height,
                         object.bounds.width * layer.width, object.bounds.height * layer.height};
        return scaled;
    }
};

}  // namespace

std::shared_ptr<SimulatedCaptureSystem> useSimulatedCamera(Platform& platform,
                                                           std::shared_ptr<const SimulatedFrames> frames,
                                                           SimulatedCaptureOptions options) {
    if (!frames) {
        log("The simulated camera has no frames to show");
        return nullptr;
    }
    if (!platform.clock) platform.clock = std::make_shared<SystemClock>();
    auto scene = std::make_shared<SimulatedScene>(std::move(frames), platform.clock);
    auto system = std::make_shared<SimulatedCaptureSystem>(scene, std::move(options));
    platform.captureSystem = system;
    platform.makeView = [] { return std::make_shared<PlainView>(std::make_shared<SimulatedPreviewLayer>()); };
    platform.makeMotionManager = [scene] { return std::make_shared<SimulatedMotionManager>(scene); };
    if (scene->frames().script().tellsSmile()) {
        platform.makeFaceDetector = [scene] { return std::make_shared<SimulatedFaceDetector>(scene); };
    }
    return system;
}

}  // namespace selvio
