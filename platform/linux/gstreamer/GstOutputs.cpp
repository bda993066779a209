#include "GstOutputs.h"

#include "GstSupport.h"

#include <SelvioFacialCapture/base/Log.h>

#include <algorithm>

namespace selvio {
namespace {

constexpr std::chrono::milliseconds kSearchPause{
    70};  // between two searches for codes, each of which takes up to 30 ms

}  // namespace

// ---- deliveries

void DeliveryTarget::set(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) {
    const std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
    queue_.swap(queue);  // the one before goes after the lock: the end of a queue runs what it still holds
}

std::shared_ptr<Queue> DeliveryTarget::queue() const {
    const std::lock_guard lock(mutex_);
    return delegate_.expired() ? nullptr : queue_;
}

void DeliveryTarget::call(const Call& call) {
    std::shared_ptr<CaptureOutputDelegate> delegate;
    {
        const std::lock_guard lock(mutex_);
        if (queue_) delegate = delegate_.lock();
    }
    if (delegate) call(*delegate);
}

// ---- frames

void GstVideoDataOutput::setPixelFormat(PixelFormat format) {
    if (gstFormatName(format) == nullptr) {
        log("Capture: frames come in BGRA, ARGB or 420v, in no other pixel format; the format stays as it was");
        return;
    }
    pixelFormat_ = format == 0 ? kPixelFormat32BGRA : format;
}

void GstVideoDataOutput::setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                                 std::shared_ptr<Queue> queue) {
    target_.set(std::move(delegate), std::move(queue));
}

VideoSettings GstVideoDataOutput::recommendedVideoSettings(const std::string&) const {
    return {recommendedVideoCodec(recording_), 720, 1280, {{kVideoExpectedSourceFrameRateKey, framesPerSecond_}}};
}

void GstVideoDataOutput::deliver(std::shared_ptr<SampleBuffer> frame) {
    const auto queue = target_.queue();
    if (!queue) return;
    const std::weak_ptr<GstVideoDataOutput> weak = weak_from_this();
    if (!discardsLate_) {
        queue->async([weak, frame = std::move(frame)] {
            const auto self = weak.lock();
            if (!self) return;
            self->target_.call([&](CaptureOutputDelegate& to) {
                to.captureOutputDidOutputSampleBuffer(*self, frame, self->connection());
            });
        });
        return;
    }
    std::shared_ptr<SampleBuffer> late;
    {
        const std::lock_guard lock(mutex_);
        late = std::exchange(waiting_, std::move(frame));
    }
    if (!late) {
        queue->async([weak] {
            if (const auto self = weak.lock()) self->handOn();
        });
        return;
    }
    auto notice = SampleBuffer::makeVideo(nullptr, late->timing());
    late.reset();  // its memory goes back to the camera now
    queue->async([weak, notice = std::move(notice)] {
        const auto self = weak.lock();
        if (!self) return;
        self->target_.call(
            [&](CaptureOutputDelegate& to) { to.captureOutputDidDropSampleBuffer(*self, notice, self->connection()); });
    });
}

void GstVideoDataOutput::handOn() {
    std::shared_ptr<SampleBuffer> frame;
    {
        const std::lock_guard lock(mutex_);
        frame = std::exchange(waiting_, nullptr);
    }
    if (!frame) return;
    target_.call([&](CaptureOutputDelegate& to) { to.captureOutputDidOutputSampleBuffer(*this, frame, connection()); });
}

// ---- sound

void GstAudioDataOutput::setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                                 std::shared_ptr<Queue> queue) {
    target_.set(std::move(delegate), std::move(queue));
}

AudioSettings GstAudioDataOutput::recommendedAudioSettings(const std::string&) const {
    return {};
}

void GstAudioDataOutput::deliver(std::shared_ptr<SampleBuffer> block) {
    const auto queue = target_.queue();
    if (!queue) return;
    queue->async([weak = weak_from_this(), block = std::move(block)] {
        const auto self = weak.lock();
        if (!self) return;
        self->target_.call([&](CaptureOutputDelegate& to) {
            to.captureOutputDidOutputSampleBuffer(*self, block, self->connection());
        });
    });
}

// ---- codes

void GstMetadataOutput::setMetadataObjectsDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                                   std::shared_ptr<Queue> queue) {
    target_.set(std::move(delegate), std::move(queue));
}

void GstMetadataOutput::setMetadataObjectTypes(std::vector<std::string> types) {
    searching_ = std::find(types.begin(), types.end(), kMetadataObjectTypePDF417Code) != types.end();
}

void GstMetadataOutput::search(std::shared_ptr<PixelBuffer> frame) {
    if (!frame || !searching_ || busy_.exchange(true)) return;
    queue_.async([weak = weak_from_this(), frame = std::move(frame)]() mutable {
        const auto self = weak.lock();
        if (!self) return;
        auto objects = self->reader_.read(*frame);
        frame.reset();
        if (!objects.empty()) self->deliver(std::move(objects));
        self->queue_.asyncAfter(kSearchPause, [weak] {
            if (const auto output = weak.lock()) output->busy_ = false;
        });
    });
}

void GstMetadataOutput::deliver(std::vector<MetadataObject> objects) {
    const auto queue = target_.queue();
    if (!queue) return;
    queue->async([weak = weak_from_this(), objects = std::move(objects)] {
        const auto self = weak.lock();
        if (!self) return;
        self->target_.call([&](CaptureOutputDelegate& to) {
            to.captureOutputDidOutputMetadataObjects(*self, objects, self->connection());
        });
    });
}

}  // namespace selvio
