#include "platform/capture/CaptureOutputs.h"

#include <SelvioFacialCapture/base/Log.h>

#include <algorithm>
#include <utility>

namespace selvio {
namespace {

constexpr int kMostLateFrames = 8;  // when late frames are kept
constexpr int kMostNotices = 60;    // behind a delegate that does not return
constexpr int kMostSounds = 1000;   // the same; about ten seconds

}  // namespace

// ---- deliveries

QueuedOutput::QueuedOutput(MediaType source, std::shared_ptr<const void> system)
    : source_(source),
      system_(std::move(system)),
      connection_(std::make_shared<PlainConnection>(source == MediaType::Video ? VideoOrientation::LandscapeRight
                                                                               : VideoOrientation::NotSet)) {}

bool QueuedOutput::isDelivering() const {
    const std::lock_guard lock(mutex_);
    return connected_ && queue_ && !delegate_.expired();
}

void QueuedOutput::giveBack() {
    connected_ = false;
    taken_ = false;
}

std::vector<std::shared_ptr<CaptureConnection>> QueuedOutput::activeConnections() const {
    if (!connected_) return {};
    return {connection_};
}

void QueuedOutput::setDelegate(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) {
    // What was set before is destroyed after the lock: the end of a queue runs what it still holds.
    std::shared_ptr<SampleBuffer> forgotten;
    const std::shared_ptr<Queue> before = [&] {
        const std::lock_guard lock(mutex_);
        delegate_ = std::move(delegate);
        ++delegateNumber_;
        pending_ = 0;
        forgotten = std::exchange(waiting_, nullptr);
        return std::exchange(queue_, std::move(queue));
    }();
}

bool QueuedOutput::submit(Delivery delivery, int most) {
    std::shared_ptr<Queue> queue;
    std::uint64_t number = 0;
    {
        const std::lock_guard lock(mutex_);
        if (!connected_ || !queue_ || delegate_.expired() || pending_ >= most) return false;
        queue = queue_;
        number = delegateNumber_;
        ++pending_;
    }
    queue->async([weak = weak_from_this(), number, delivery = std::move(delivery)] {
        if (const auto self = weak.lock()) self->run(delivery, number);
    });
    return true;
}

void QueuedOutput::run(const Delivery& delivery, std::uint64_t delegateNumber) {
    std::shared_ptr<CaptureOutputDelegate> delegate;
    {
        const std::lock_guard lock(mutex_);
        if (delegateNumber_ != delegateNumber) return;
        delegate = delegate_.lock();
    }
    if (delegate) delivery(*delegate);
    const std::lock_guard lock(mutex_);
    if (delegateNumber_ == delegateNumber) --pending_;
}

std::shared_ptr<SampleBuffer> QueuedOutput::exchangeWaiting(std::shared_ptr<SampleBuffer> frame) {
    const std::lock_guard lock(mutex_);
    if (frame && !queue_) return frame;
    return std::exchange(waiting_, std::move(frame));
}

// ---- frames

void QueuedVideoOutput::setPixelFormat(PixelFormat format) {
    const PixelFormat wanted = format == 0 ? kPixelFormat32BGRA : format;
    if (std::find(formats_.begin(), formats_.end(), wanted) != formats_.end()) {
        pixelFormat_ = wanted;
    } else {
        log("Capture: frames do not come in that pixel format; it stays as it was");
    }
}

void QueuedVideoOutput::deliver(std::shared_ptr<SampleBuffer> frame) {
    if (!isDelivering()) return;
    const SampleTiming timing = frame->timing();
    if (!discardsLate_) {
        const bool taken = submit(
            [this, frame = std::move(frame)](CaptureOutputDelegate& to) {
                to.captureOutputDidOutputSampleBuffer(*this, frame, connection());
            },
            kMostLateFrames);
        if (!taken) deliverDropNotice(timing);
        return;
    }
    if (auto late = exchangeWaiting(std::move(frame))) {
        const SampleTiming lateTiming = late->timing();
        late.reset();  // its memory goes back to the camera now
        return deliverDropNotice(lateTiming);
    }
    const auto deliverNewest = [this](CaptureOutputDelegate& to) {
        if (const auto newest = exchangeWaiting(nullptr))
            to.captureOutputDidOutputSampleBuffer(*this, newest, connection());
    };
    if (!submit(deliverNewest, kMostNotices + 1)) (void)exchangeWaiting(nullptr);
}

void QueuedVideoOutput::deliverDropNotice(SampleTiming timing) {
    submit([this, notice = SampleBuffer::makeVideo(nullptr, timing)](
               CaptureOutputDelegate& to) { to.captureOutputDidDropSampleBuffer(*this, notice, connection()); },
           kMostNotices);
}

// ---- sound and codes

void QueuedAudioOutput::deliver(std::shared_ptr<SampleBuffer> block) {
    submit([this, block = std::move(block)](
               CaptureOutputDelegate& to) { to.captureOutputDidOutputSampleBuffer(*this, block, connection()); },
           kMostSounds);
}

void QueuedMetadataOutput::setMetadataObjectTypes(std::vector<std::string> types) {
    searching_ = std::find(types.begin(), types.end(), kMetadataObjectTypePDF417Code) != types.end();
}

void QueuedMetadataOutput::deliver(std::vector<MetadataObject> objects, std::function<bool()> isWanted) {
    submit(
        [this, objects = std::move(objects), isWanted = std::move(isWanted)](CaptureOutputDelegate& to) {
            if (isWanted()) to.captureOutputDidOutputMetadataObjects(*this, objects, connection());
        },
        1);
}

}  // namespace selvio
