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
    state_->delegateSlot()->tell(&SelvioFacialCaptureCameraDelegate::didReceiveSampleBuffer, sampleBuffer);
}

void SampleReceiver::captureOutputDidDropSampleBuffer(const CaptureOutput& output,
                                                      const std::shared_ptr<SampleBuffer>& sampleBuffer,
                                                      const std::shared_ptr<CaptureConnection>&) {
    assert(isOnOrEnding(videoOutputQueue_));
    if (&output != state_->get(&CameraValues::videoDataOutput).get()) return;
    state_->delegateSlot()->tell(&SelvioFacialCaptureCameraDelegate::didDropSampleBuffer, sampleBuffer);
}

void SampleReceiver::captureOutputDidOutputMetadataObjects(const CaptureOutput&,
                                                           const std::vector<MetadataObject>& metadataObjects,
                                                           const std::shared_ptr<CaptureConnection>&) {
    const auto layer = state_->get(&CameraValues::videoPreviewLayer);
    for (const MetadataObject& object : metadataObjects) {
        if (object.type != kMetadataObjectTypePDF417Code) continue;
        // The place of the code is found, but only its text is reported.
        if (layer) (void)layer->transformedMetadataObject(object);
        if (!object.stringValue) continue;
        state_->delegateSlot()->tell(&SelvioFacialCaptureCameraDelegate::didDecodeBarcode, *object.stringValue);
        return;
    }
}

}  // namespace selvio
