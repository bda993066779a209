// What the capture outputs deliver, handed to the recording and to the camera's delegate.
#pragma once

#include "camera/CameraState.h"
#include "camera/VideoRecorder.h"

namespace selvio {

/// The steps of a frame: remembered size → recording → delegate. Owned by the camera, held weakly by the outputs. Takes
/// no session lock.
class SampleReceiver final : public CaptureOutputDelegate {
public:
    SampleReceiver(std::shared_ptr<CameraState> state, std::shared_ptr<VideoRecorder> recorder,
                   const std::shared_ptr<Queue>& videoOutputQueue);

    /// On the video output queue.
    void captureOutputDidOutputSampleBuffer(const CaptureOutput& output,
                                            const std::shared_ptr<SampleBuffer>& sampleBuffer,
                                            const std::shared_ptr<CaptureConnection>& connection) override;
    /// On the video output queue.
    void captureOutputDidDropSampleBuffer(const CaptureOutput& output,
                                          const std::shared_ptr<SampleBuffer>& sampleBuffer,
                                          const std::shared_ptr<CaptureConnection>& connection) override;
    /// On the metadata queue.
    void captureOutputDidOutputMetadataObjects(const CaptureOutput& output,
                                               const std::vector<MetadataObject>& metadataObjects,
                                               const std::shared_ptr<CaptureConnection>& connection) override;

private:
    const std::shared_ptr<CameraState> state_;
    const std::shared_ptr<VideoRecorder> recorder_;
    const std::weak_ptr<Queue> videoOutputQueue_;
};

}  // namespace selvio
