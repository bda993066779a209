#include <SelvioFacialCapture/imaging/SampleBuffer.h>

#include <utility>

namespace selvio {

std::shared_ptr<SampleBuffer> SampleBuffer::makeVideo(std::shared_ptr<PixelBuffer> imageBuffer, SampleTiming timing,
                                                      bool dataIsReady) {
    std::shared_ptr<SampleBuffer> sample(new SampleBuffer);
    sample->imageBuffer_ = std::move(imageBuffer);
    sample->timing_ = timing;
    sample->dataIsReady_ = dataIsReady;
    return sample;
}

std::shared_ptr<SampleBuffer> SampleBuffer::makeAudio(AudioData audio, SampleTiming timing, bool dataIsReady) {
    std::shared_ptr<SampleBuffer> sample(new SampleBuffer);
    sample->audio_ = std::move(audio);
    sample->timing_ = timing;
    sample->dataIsReady_ = dataIsReady;
    return sample;
}

std::optional<VideoFormatDescription> SampleBuffer::formatDescription() const {
    if (!imageBuffer_) return std::nullopt;
    return VideoFormatDescription{imageBuffer_->format(), imageBuffer_->width(), imageBuffer_->height()};
}

}  // namespace selvio
