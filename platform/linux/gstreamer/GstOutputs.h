// The outputs of a session: what they deliver, on which queue, and to whom.
#pragma once

#include "BarcodeReader.h"
#include "CaptureRules.h"

#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/linux/Recording.h>
#include <SelvioFacialCapture/platform/Capture.h>

#include <atomic>
#include <mutex>

namespace selvio {

class GstConnection final : public CaptureConnection {
public:
    explicit GstConnection(bool supportsOrientation, VideoOrientation orientation)
        : supportsOrientation_(supportsOrientation), orientation_(orientation) {}
    [[nodiscard]] bool isVideoOrientationSupported() const override { return supportsOrientation_; }
    void setVideoOrientation(VideoOrientation orientation) override { orientation_ = orientation; }
    [[nodiscard]] VideoOrientation videoOrientation() const override { return orientation_; }

private:
    const bool supportsOrientation_;
    std::atomic<VideoOrientation> orientation_;
};

/// The delegate of an output and the queue it is called on. Any thread.
class DeliveryTarget {
public:
    using Call = std::function<void(CaptureOutputDelegate&)>;

    /// Both null ends the deliveries. One that runs is not waited for: the caller may hold a lock that the delegate is
    /// about to take.
    void set(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue);
    /// The queue to submit to; null if there is no delegate.
    [[nodiscard]] std::shared_ptr<Queue> queue() const;
    /// On the queue: makes the call if the delegate is still there and set.
    void call(const Call& call);

private:
    mutable std::mutex mutex_;
    std::weak_ptr<CaptureOutputDelegate> delegate_;  // guarded by mutex_
    std::shared_ptr<Queue> queue_;                   // guarded by mutex_
};

/// What the three kinds of output share. Deliveries hold their output weakly.
class GstOutput {
public:
    explicit GstOutput(std::shared_ptr<GstConnection> connection) : connection_(std::move(connection)) {}
    virtual ~GstOutput() = default;

    [[nodiscard]] virtual MediaType inputType() const { return MediaType::Video; }
    /// Called by the session that the output belongs to: whether it has a matching input.
    void setConnected(bool connected) { connected_ = connected; }
    [[nodiscard]] const std::shared_ptr<GstConnection>& connection() const { return connection_; }

protected:
    [[nodiscard]] std::vector<std::shared_ptr<CaptureConnection>> activeConnections() const {
        return connected_ ? std::vector<std::shared_ptr<CaptureConnection>>{connection_}
                          : std::vector<std::shared_ptr<CaptureConnection>>{};
    }
    DeliveryTarget target_;

private:
    const std::shared_ptr<GstConnection> connection_;
    std::atomic<bool> connected_{false};
};

class GstVideoDataOutput final : public VideoDataOutput,
                                 public GstOutput,
                                 public std::enable_shared_from_this<GstVideoDataOutput> {
public:
    explicit GstVideoDataOutput(RecordingOptions recording)
        : GstOutput(std::make_shared<GstConnection>(true, VideoOrientation::LandscapeRight)),
          recording_(std::move(recording)) {}

    [[nodiscard]] std::vector<std::shared_ptr<CaptureConnection>> connections() const override {
        return activeConnections();
    }
    /// A format that cannot be delivered is logged and changes nothing.
    void setPixelFormat(PixelFormat format) override;
    [[nodiscard]] PixelFormat pixelFormat() const { return pixelFormat_; }
    void setAlwaysDiscardsLateVideoFrames(bool discards) override { discardsLate_ = discards; }
    void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) override;
    [[nodiscard]] VideoSettings recommendedVideoSettings(const std::string& fileType) const override;
    /// Frames a second to expect, for the recommended settings.
    void setFrameRate(int framesPerSecond) { framesPerSecond_ = framesPerSecond; }

    /// Submits a frame; never waits.
    void deliver(std::shared_ptr<SampleBuffer> frame);

private:
    void handOn();

    const RecordingOptions recording_;
    std::atomic<PixelFormat> pixelFormat_{kPixelFormat32BGRA};
    std::atomic<bool> discardsLate_{true};
    std::atomic<int> framesPerSecond_{30};
    std::mutex mutex_;
    std::shared_ptr<SampleBuffer> waiting_;  // guarded by mutex_
};

class GstAudioDataOutput final : public AudioDataOutput,
                                 public GstOutput,
                                 public std::enable_shared_from_this<GstAudioDataOutput> {
public:
    GstAudioDataOutput() : GstOutput(std::make_shared<GstConnection>(false, VideoOrientation::NotSet)) {}

    [[nodiscard]] MediaType inputType() const override { return MediaType::Audio; }
    [[nodiscard]] std::vector<std::shared_ptr<CaptureConnection>> connections() const override {
        return activeConnections();
    }
    void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) override;
    [[nodiscard]] AudioSettings recommendedAudioSettings(const std::string& fileType) const override;

    void deliver(std::shared_ptr<SampleBuffer> block);
};

class GstMetadataOutput final : public MetadataOutput,
                                public GstOutput,
                                public std::enable_shared_from_this<GstMetadataOutput> {
public:
    GstMetadataOutput() : GstOutput(std::make_shared<GstConnection>(true, VideoOrientation::LandscapeRight)) {}

    [[nodiscard]] std::vector<std::shared_ptr<CaptureConnection>> connections() const override {
        return activeConnections();
    }
    void setMetadataObjectsDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                    std::shared_ptr<Queue> queue) override;
    void setMetadataObjectTypes(std::vector<std::string> types) override;

    /// Whether a frame would be looked at now.
    [[nodiscard]] bool wantsFrame() const { return searching_ && !busy_; }
    /// Submits a frame to the search, if none is being searched. Never waits.
    void search(std::shared_ptr<PixelBuffer> frame);

private:
    void deliver(std::vector<MetadataObject> objects);

    std::atomic<bool> searching_{false};
    std::atomic<bool> busy_{false};
    BarcodeReader reader_;  // used on queue_ only
    SerialQueue queue_{"barcodes"};
};

}  // namespace selvio
