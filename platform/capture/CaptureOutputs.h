// The outputs of a capture session: what they deliver, on which queue, and to whom.
#pragma once

#include <SelvioFacialCapture/platform/Capture.h>

#include <atomic>

namespace selvio {

/// Remembers an orientation.
class PlainConnection final : public CaptureConnection {
public:
    /// A connection that begins without an orientation supports none.
    explicit PlainConnection(VideoOrientation orientation)
        : supportsOrientation_(orientation != VideoOrientation::NotSet), orientation_(orientation) {}
    [[nodiscard]] bool isVideoOrientationSupported() const override { return supportsOrientation_; }
    void setVideoOrientation(VideoOrientation orientation) override {
        if (supportsOrientation_) orientation_ = orientation;
    }
    [[nodiscard]] VideoOrientation videoOrientation() const override { return orientation_; }

private:
    const bool supportsOrientation_;
    std::atomic<VideoOrientation> orientation_;
};

/// What the three kinds of output share. Queued deliveries hold their output weakly, and one that has not begun is
/// forgotten when the delegate is replaced. Any thread.
class QueuedOutput : public std::enable_shared_from_this<QueuedOutput> {
public:
    virtual ~QueuedOutput() = default;

    /// What the output takes from an input.
    [[nodiscard]] MediaType source() const { return source_; }
    /// The capture system that made the output.
    [[nodiscard]] const std::shared_ptr<const void>& system() const { return system_; }
    [[nodiscard]] const std::shared_ptr<PlainConnection>& connection() const { return connection_; }
    /// Whether a session delivers to a delegate now.
    [[nodiscard]] bool isDelivering() const;

    // For the session.

    /// One session at a time: true for the one that takes a free output.
    [[nodiscard]] bool take() { return !taken_.exchange(true); }
    void giveBack();
    [[nodiscard]] bool isTaken() const { return taken_; }
    /// Whether the session has a matching input.
    void setConnected(bool connected) { connected_ = connected; }

protected:
    using Delivery = std::function<void(CaptureOutputDelegate&)>;

    QueuedOutput(MediaType source, std::shared_ptr<const void> system);

    [[nodiscard]] std::vector<std::shared_ptr<CaptureConnection>> activeConnections() const;
    void setDelegate(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue);
    /// Returns false, without effect, if there is no delegate or `most` deliveries are pending.
    bool submit(Delivery delivery, int most);
    /// Makes this the frame that waits for the present delegate, and returns the one that waited before; the frame
    /// itself if nobody is delivered to. Null takes the waiting frame away.
    [[nodiscard]] std::shared_ptr<SampleBuffer> exchangeWaiting(std::shared_ptr<SampleBuffer> frame);

private:
    void run(const Delivery& delivery, std::uint64_t delegateNumber);

    const MediaType source_;
    const std::shared_ptr<const void> system_;
    const std::shared_ptr<PlainConnection> connection_;
    std::atomic<bool> connected_{false};
    std::atomic<bool> taken_{false};
    mutable std::mutex mutex_;
    std::weak_ptr<CaptureOutputDelegate> delegate_;  // guarded by mutex_
    std::shared_ptr<Queue> queue_;                   // guarded by mutex_
    std::uint64_t delegateNumber_ = 0;               // guarded by mutex_; counts the delegates
    int pending_ = 0;                                // guarded by mutex_; deliveries to the present delegate
    std::shared_ptr<SampleBuffer> waiting_;          // guarded by mutex_; for the present delegate
};

/// An output of sample buffers.
template <typename Kind, MediaType kSource>
class QueuedSampleOutput : public Kind, public QueuedOutput {
public:
    [[nodiscard]] std::vector<std::shared_ptr<CaptureConnection>> connections() const override {
        return activeConnections();
    }
    void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) override {
        setDelegate(std::move(delegate), std::move(queue));
    }

protected:
    explicit QueuedSampleOutput(std::shared_ptr<const void> system) : QueuedOutput(kSource, std::move(system)) {}
};

class QueuedVideoOutput : public QueuedSampleOutput<VideoDataOutput, MediaType::Video> {
public:
    void setPixelFormat(PixelFormat format) override;
    [[nodiscard]] PixelFormat pixelFormat() const { return pixelFormat_; }
    void setAlwaysDiscardsLateVideoFrames(bool discards) override { discardsLate_ = discards; }

    /// Submits a frame. Late frames that are not discarded wait up to a number; those above it are dropped.
    void deliver(std::shared_ptr<SampleBuffer> frame);
    void deliverDropNotice(SampleTiming timing);

protected:
    /// `formats`: those that can be delivered.
    QueuedVideoOutput(std::shared_ptr<const void> system, std::vector<PixelFormat> formats)
        : QueuedSampleOutput(std::move(system)), formats_(std::move(formats)) {}

private:
    const std::vector<PixelFormat> formats_;
    std::atomic<PixelFormat> pixelFormat_{kPixelFormat32BGRA};
    std::atomic<bool> discardsLate_{true};
};

class QueuedAudioOutput final : public QueuedSampleOutput<AudioDataOutput, MediaType::Audio> {
public:
    explicit QueuedAudioOutput(std::shared_ptr<const void> system) : QueuedSampleOutput(std::move(system)) {}

    [[nodiscard]] AudioSettings recommendedAudioSettings(const std::string&) const override { return {}; }

    /// Submits a block; left out while the delegate has far too many waiting.
    void deliver(std::shared_ptr<SampleBuffer> block);
};

class QueuedMetadataOutput : public MetadataOutput, public QueuedOutput {
public:
    explicit QueuedMetadataOutput(std::shared_ptr<const void> system)
        : QueuedOutput(MediaType::Video, std::move(system)) {}

    [[nodiscard]] std::vector<std::shared_ptr<CaptureConnection>> connections() const override {
        return activeConnections();
    }
    void setMetadataObjectsDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                    std::shared_ptr<Queue> queue) override {
        setDelegate(std::move(delegate), std::move(queue));
    }
    void setMetadataObjectTypes(std::vector<std::string> types) override;

    /// Whether PDF417 codes are looked for, the one type that there is.
    [[nodiscard]] bool isSearching() const { return searching_ && isDelivering(); }
    /// Submits the objects; left out while earlier ones wait, or if `isWanted` says no when their turn comes.
    void deliver(
        std::vector<MetadataObject> objects, std::function<bool()> isWanted = [] { return true; });

private:
    std::atomic<bool> searching_{false};
};

}  // namespace selvio
