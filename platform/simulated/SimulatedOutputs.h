// The outputs of a simulated session.
#pragma once

#include "platform/simulated/DeliveryPoint.h"
#include "platform/simulated/SimulatedControl.h"

#include <atomic>

namespace selvio {

class SimulatedConnection final : public CaptureConnection {
public:
    SimulatedConnection(bool video, VideoOrientation orientation) : video_(video), orientation_(orientation) {}
    bool isVideoOrientationSupported() const override { return video_; }
    void setVideoOrientation(VideoOrientation orientation) override {
        if (video_) orientation_ = orientation;
    }
    VideoOrientation videoOrientation() const override { return orientation_; }

private:
    const bool video_;
    std::atomic<VideoOrientation> orientation_;
};

/// What a session needs of any of its outputs. Any thread.
class SimulatedOutput {
public:
    explicit SimulatedOutput(MediaType source) : source_(source) {}
    virtual ~SimulatedOutput() = default;
    /// The media that the output takes from an input.
    [[nodiscard]] MediaType source() const { return source_; }
    [[nodiscard]] virtual bool refused(const SimulatedFaults& faults) const = 0;
    /// Gives the output a connection, or takes it away.
    void setConnected(bool connected);
    [[nodiscard]] std::shared_ptr<CaptureConnection> connection() const;
    [[nodiscard]] DeliveryPoint& deliveries() { return deliveries_; }
    /// One session at a time: true for the caller that takes a free output.
    [[nodiscard]] bool take() { return !taken_.exchange(true); }
    void giveBack() { taken_ = false; }
    [[nodiscard]] bool isTaken() const { return taken_; }

protected:
    [[nodiscard]] std::vector<std::shared_ptr<CaptureConnection>> connectionList() const;

private:
    const MediaType source_;
    DeliveryPoint deliveries_;
    std::atomic<bool> taken_{false};
    mutable std::mutex mutex_;
    std::shared_ptr<SimulatedConnection> connection_;  // guarded by mutex_
};

class SimulatedVideoDataOutput final : public VideoDataOutput,
                                       public SimulatedOutput,
                                       public std::enable_shared_from_this<SimulatedVideoDataOutput> {
public:
    explicit SimulatedVideoDataOutput(std::shared_ptr<SimulatedControl> control)
        : SimulatedOutput(MediaType::Video), control_(std::move(control)) {}
    std::vector<std::shared_ptr<CaptureConnection>> connections() const override { return connectionList(); }
    bool refused(const SimulatedFaults& faults) const override { return faults.videoOutputRefused; }
    void setPixelFormat(PixelFormat format) override;
    void setAlwaysDiscardsLateVideoFrames(bool discards) override { discardsLate_ = discards; }
    void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) override;
    VideoSettings recommendedVideoSettings(const std::string& fileType) const override;

    /// The size of the source's frames as the sensor lies.
    void setSensorSize(std::int32_t width, std::int32_t height);
    /// Draws and delivers the frame of a script time, or a drop notice if `drop` is set.
    void deliver(std::chrono::nanoseconds scriptTime, const SampleTiming& timing, bool drop);

private:
    [[nodiscard]] std::pair<int, int> frameSize() const;
    void deliverDropNotice(const SampleTiming& timing);
    void handOn(CaptureOutputDelegate& delegate);

    const std::shared_ptr<SimulatedControl> control_;
    std::atomic<PixelFormat> format_{kPixelFormat32BGRA};
    std::atomic<bool> discardsLate_{true};
    std::atomic<std::uint64_t> sensorSize_{(std::uint64_t{1280} << 32) | 720};  // width, height
    std::mutex mutex_;
    std::shared_ptr<SampleBuffer> waiting_;  // guarded by mutex_; for the delegate, when late frames are discarded
};

class SimulatedAudioDataOutput final : public AudioDataOutput,
                                       public SimulatedOutput,
                                       public std::enable_shared_from_this<SimulatedAudioDataOutput> {
public:
    SimulatedAudioDataOutput() : SimulatedOutput(MediaType::Audio) {}
    std::vector<std::shared_ptr<CaptureConnection>> connections() const override { return connectionList(); }
    bool refused(const SimulatedFaults& faults) const override { return faults.audioOutputRefused; }
    void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) override;
    AudioSettings recommendedAudioSettings(const std::string&) const override { return {}; }

    /// One block of the tone, `firstSample` samples after the session's start; left out while the delegate has far too
    /// many waiting.
    void deliver(std::int64_t firstSample, const SampleTiming& timing);
    static constexpr int kSampleRate = 48000;
    static constexpr int kBlockSamples = 1024;
};

class SimulatedMetadataOutput final : public MetadataOutput,
                                      public SimulatedOutput,
                                      public std::enable_shared_from_this<SimulatedMetadataOutput> {
public:
    SimulatedMetadataOutput() : SimulatedOutput(MediaType::Video) {}
    std::vector<std::shared_ptr<CaptureConnection>> connections() const override { return connectionList(); }
    bool refused(const SimulatedFaults& faults) const override { return faults.metadataOutputRefused; }
    void setMetadataObjectsDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                    std::shared_ptr<Queue> queue) override;
    void setMetadataObjectTypes(std::vector<std::string> types) override;

    /// Delivers the code in view, if it is looked for and the one before has been taken.
    void deliver(const std::string& barcode);

private:
    mutable std::mutex mutex_;
    std::vector<std::string> types_;  // guarded by mutex_
};

}  // namespace selvio
