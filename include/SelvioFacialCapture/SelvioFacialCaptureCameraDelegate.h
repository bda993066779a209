// What a camera tells its host.
#pragma once

#include <SelvioFacialCapture/imaging/SampleBuffer.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Receiver of a camera's events. Each member is optional: an empty one is skipped silently.
/// The host keeps the struct in a `shared_ptr`; the camera holds it weakly and keeps it alive only for the length of a
/// call. Fill it before `SelvioFacialCaptureCamera::setDelegate` and leave it alone afterwards: the members are called
/// on several queues. The members must not throw.
struct SelvioFacialCaptureCameraDelegate {
    /// The capture graph is complete and `isConfigured` is true. On the session queue.
    /// A delegate without this member leaves `isConfigured` false although the graph is complete.
    std::function<void()> didFinishConfiguringSession;

    /// One video frame. On the video output queue: return quickly, or frames are dropped. Keep the reference to keep
    /// the frame.
    std::function<void(const std::shared_ptr<selvio::SampleBuffer>& sampleBuffer)> didReceiveSampleBuffer;

    /// A video frame was dropped; the sample buffer of the notice may be without a picture. On the video output queue.
    std::function<void(const std::shared_ptr<selvio::SampleBuffer>& sampleBuffer)> didDropSampleBuffer;

    /// The text of a PDF417 code, at most one for each batch of detections. On the queue "MetaDataOutputQueue".
    std::function<void(const std::string& text)> didDecodeBarcode;

    /// The bytes of the finished MP4 file, which is no longer on disk. On the writer's completion thread.
    /// Without this member a finished recording stays on disk until the next clean-up.
    std::function<void(std::vector<std::uint8_t> data)> didFinishRecordingVideo;
};
