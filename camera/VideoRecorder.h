// Recording the capture into an MP4 file.
#pragma once

#include "camera/CameraState.h"

namespace selvio {

/// Writes the samples of a camera to a file while its writer is writing.
///
///     idle ──start──▶ writing ──stop──▶ finishing ──▶ completed, failed or cancelled
///       ▲───────────discard┴─────────────────┘
///
/// The state is the writer's status and `shouldRecord` of the camera; kept here is only which writer has been asked to
/// finish. A recorder outlives its camera until a stop or a discard already requested has run, so that no file is left
/// half-written because the camera was destroyed. While the writer then finishes, it keeps nothing of the camera alive.
class VideoRecorder {
public:
    /// `queue`: the video output queue, held weakly.
    VideoRecorder(const Platform& platform, std::shared_ptr<CameraState> state, const std::shared_ptr<Queue>& queue);

    // On the video output queue.

    void start();
    void stop();
    /// `stop`, unless nothing is being written.
    void stopIfWriting();
    void discard();
    void appendVideoSample(const std::shared_ptr<SampleBuffer>& sampleBuffer) const;
    void appendAudioSample(const std::shared_ptr<SampleBuffer>& sampleBuffer) const;

    // On any thread.

    void deleteCurrentRecording() const;
    [[nodiscard]] std::optional<std::filesystem::path> url() const;
    void cleanupBrokenVideos() const;

private:
    void configureAssetWriter() const;
    [[nodiscard]] std::shared_ptr<AssetWriterInput> makeVideoInput() const;
    [[nodiscard]] std::shared_ptr<AssetWriterInput> makeAudioInput(AudioDataOutput& output) const;
    void append(std::shared_ptr<AssetWriterInput> CameraValues::*member,
                const std::shared_ptr<SampleBuffer>& sampleBuffer) const;
    void markInputsAsFinished() const;

    const std::shared_ptr<const Clock> clock_;
    const int serviceLevel_;
    const std::shared_ptr<const Screen> screen_;
    const std::shared_ptr<AssetWriterFactory> writers_;
    const std::shared_ptr<FileManager> files_;
    const std::shared_ptr<CameraState> state_;
    const std::weak_ptr<Queue> queue_;
    std::weak_ptr<AssetWriter> finishing_;  // asked to finish, which a writer may be only once; video output queue only
};

}  // namespace selvio
