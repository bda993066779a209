#include "camera/SampleReceiver.h"

namespace selvio {

SampleReceiver::SampleReceiver(std::shared_ptr<CameraState> state, std::shared_ptr<VideoRecorder> recorder,
                               const std::shared_ptr<Queue>& videoOutputQueue)
    : state_(std::move(state)), recorder_(std::move(recorder)), videoOutputQueue_(videoOutputQueue) {}

void SampleReceiver::captureOutputDidOutputSampleBuffer(const CaptureOutput& output,
                                                        const std::shared_ptr<SampleBuffer>& sampleBuffer,
                                                        const std::shared_ptr<CaptureConnection>&) {
    assert(isOnOrEnding(videoOutputQueue_));
    if (!sampleBuffer) return;
    if (&output == state_->get(&CameraValues::audioDataOutput).get()) recorder_->appendAudioSample(sampleBuffer);
    if (&output != state_->get(&CameraValues::videoDataOutput).get()) return;

    if (const auto& image = sampleBuffer->imageBuffer()) {
        state_->setResolutionOnce({static_cast<double>(image->width()), static_cast<double>(image->height())});
    }
    recorder_->appendVideoSample(sampleBuffer);
    const auto delegate = state_->delegate();
    if (delegate && delegate->didReceiveSampleBuffer) delegate->didReceiveSampleBuffer(sampleBuffer);
}

void SampleReceiver::captureOutputDidDropSampleBuffer(const CaptureOutput& output,
                                                      const std::shared_ptr<SampleBuffer>& sampleBuffer,
                                                      const std::shared_ptr<CaptureConnection>&) {
    assert(isOnOrEnding(videoOutputQueue_));
    if (&output != state_->get(&CameraValues::videoDataOutput).get()) return;
    const auto delegate = state_->delegate();
    if (delegate && delegate->didDropSampleBuffer) delegate->didDropSampleBuffer(sampleBuffer);
}

void SampleReceiver::captureOutputDidOutputMetadataObjects(const CaptureOutput&,
                                                           const std::vector<MetadataObject>& metadataObjects,
                                                           const std::shared_ptr<CaptureConnection>&) {
    const auto layer = state_->get(&CameraValues::videoPreviewLayer);
    for (const MetadataObject& object : metadataObjects) {
        if (object.type != kMetadataObjectTypePDF417Code) continue;
        if (layer)
            (void)layer->transformedMetadataObject(
                object);  // the place of the code is found, but only its text is reported
        if (!object.stringValue) continue;
        const auto delegate = state_->delegate();
        if (delegate && delegate->didDecodeBarcode) delegate->didDecodeBarcode(*object.stringValue);
        return;
    }
}

}  // namespace selvio
