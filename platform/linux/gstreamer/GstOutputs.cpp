#include "GstOutputs.h"

namespace selvio {
namespace {

constexpr std::chrono::milliseconds kSearchPause{70};  // between two searches, each of which takes up to 30 ms

}  // namespace

VideoSettings GstVideoDataOutput::recommendedVideoSettings(const std::string&) const {
    return {recommendedVideoCodec(recording_), 720, 1280, {{kVideoExpectedSourceFrameRateKey, framesPerSecond_}}};
}

std::weak_ptr<GstMetadataOutput> GstMetadataOutput::weakly() {
    return std::static_pointer_cast<GstMetadataOutput>(shared_from_this());
}

void GstMetadataOutput::search(std::shared_ptr<PixelBuffer> frame) {
    if (!frame || busy_.exchange(true)) return;
    queue_.async([weak = weakly(), frame = std::move(frame)]() mutable {
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

}  // namespace selvio
