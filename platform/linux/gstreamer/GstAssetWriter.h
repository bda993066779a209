// Writes captured samples into an MP4 file with GStreamer.
#pragma once

#include "AudioTimeline.h"
#include "GstSupport.h"
#include "VideoEncoders.h"

#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/linux/Recording.h>

#include <gst/app/gstappsrc.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace selvio {

class GstAssetWriter;

/// One track; works once it belongs to a writer that writes.
class GstAssetWriterInput final : public AssetWriterInput {
public:
    /// The encoder, or why there is none.
    GstAssetWriterInput(VideoSettings settings, Expected<const VideoEncoder*> encoder)
        : mediaType_(MediaType::Video), videoSettings_(std::move(settings)), videoEncoder_(std::move(encoder)) {}
    GstAssetWriterInput(AudioSettings settings, Expected<const AudioEncoder*> encoder)
        : mediaType_(MediaType::Audio), audioSettings_(settings), audioEncoder_(std::move(encoder)) {}

    void setExpectsMediaDataInRealTime(bool expects) override { realTime_ = expects; }
    [[nodiscard]] bool isReadyForMoreMediaData() const override;
    bool appendSampleBuffer(const std::shared_ptr<SampleBuffer>& sampleBuffer) override;
    void markAsFinished() override;

private:
    friend class GstAssetWriter;
    const MediaType mediaType_;
    const VideoSettings videoSettings_;
    const AudioSettings audioSettings_;
    const Expected<const VideoEncoder*> videoEncoder_{nullptr};
    const Expected<const AudioEncoder*> audioEncoder_{nullptr};
    bool realTime_ = false;
    std::weak_ptr<GstAssetWriter> writer_;
};

/// The pipeline of one file and what became of it. The work that finishes the file keeps the writer alive.
///
///     Unknown ──startWriting──▶ Writing ──finishWriting──▶ Completed
///        │                        ├── error, any time ──▶ Failed
///        └──── cancelWriting ─────┴── cancelWriting, destruction ──▶ Cancelled
class GstAssetWriter final : public AssetWriter, public std::enable_shared_from_this<GstAssetWriter> {
public:
    GstAssetWriter(std::filesystem::path path, RecordingOptions options);
    ~GstAssetWriter() override;

    [[nodiscard]] AssetWriterStatus status() const override { return status_; }
    [[nodiscard]] bool canAddInput(const AssetWriterInput& input) const override;
    void addInput(std::shared_ptr<AssetWriterInput> input) override;
    bool startWriting() override;
    void startSessionAtSourceTime(std::chrono::nanoseconds time) override;
    void finishWriting(std::function<void()> completion) override;
    void cancelWriting() override;

    [[nodiscard]] bool isReady(MediaType mediaType) const;
    bool append(MediaType mediaType, const std::shared_ptr<SampleBuffer>& sample);
    void endTrack(MediaType mediaType);

private:
    struct Track {
        std::shared_ptr<const GstAssetWriterInput> input;  ///< null if there is no such track
        bool ended = false;
        GstPtr<GstElement> source;  ///< appsrc
    };

    [[nodiscard]] const Track& track(MediaType mediaType) const {
        return mediaType == MediaType::Video ? video_ : audio_;
    }
    std::optional<Error> build();
    std::optional<Error> buildVideo(GstElement* muxer);
    std::optional<Error> buildAudio(GstElement* muxer);

    bool appendVideo(const std::shared_ptr<SampleBuffer>& sample, std::chrono::nanoseconds time);
    bool appendAudio(const std::shared_ptr<SampleBuffer>& sample, std::chrono::nanoseconds time);
    void adoptAudioFormat(int sampleRate, int channels);
    void pushSilence(std::int64_t frames);
    void pushAudio(GstBuffer* buffer, std::int64_t frames);
    void fillAudioUntil(std::chrono::nanoseconds time);
    [[nodiscard]] std::chrono::nanoseconds audioEnd() const;

    static GstBusSyncReply onMessage(GstBus* bus, GstMessage* message, gpointer writer);
    void fail(const std::string& reason);
    bool moveTo(AssetWriterStatus status);
    void waitForEnd();
    void completeFile();
    void tearDown();

    const std::filesystem::path path_;
    const std::filesystem::path partPath_;  ///< the finished file until it is moved into place
    const RecordingOptions options_;

    Track video_;
    Track audio_;
    GstPtr<GstElement> pipeline_;
    GstPtr<GstElement> scaler_;
    bool ownsPart_ = false;  ///< the part file is this recording's

    std::optional<std::chrono::nanoseconds> sessionStart_;
    std::optional<PixelBufferLayout> videoLayout_;
    int framesPerSecond_ = 0;
    std::chrono::nanoseconds lastVideoTime_{-1};
    std::chrono::nanoseconds videoEnd_{0};
    std::chrono::nanoseconds keyFrameTime_{0};  ///< of the last key frame that was asked for
    std::chrono::nanoseconds audioDelay_{0};
    int audioRate_ = 0;
    int audioChannels_ = 0;
    std::chrono::nanoseconds audioBase_{0};  ///< where the samples of the present format begin
    std::int64_t audioFrames_ = 0;           ///< written since then

    std::atomic<AssetWriterStatus> status_{AssetWriterStatus::Unknown};
    std::mutex mutex_;
    std::condition_variable changed_;
    bool ended_ = false;     // guarded by mutex_; the end of the stream has reached the file
    bool tornDown_ = false;  // guarded by mutex_; no pipeline runs and no unfinished file lies about
    std::unique_ptr<SerialQueue>
        worker_;  ///< made by start; ends the pipeline, since that waits for GStreamer's threads
};

}  // namespace selvio
