#include "PipeCamera.h"

#include <SelvioFacialCapture/base/Log.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

namespace example {
namespace {

using namespace selvio;

std::chrono::nanoseconds now() {
    return std::chrono::steady_clock::now().time_since_epoch();
}

/// What a pipe cannot do is answered truthfully: no focus, no torch, one format.
class PipeDevice final : public CaptureDevice {
public:
    explicit PipeDevice(const PipeFormat& format)
        : format_{{kPixelFormat32BGRA, format.width, format.height}, /*maxFrameRate=*/30.0} {}

    [[nodiscard]] std::string uniqueId() const override { return "pipe"; }
    [[nodiscard]] std::string localizedName() const override { return "Pipe"; }
    [[nodiscard]] MediaType mediaType() const override { return MediaType::Video; }
    [[nodiscard]] CaptureDevicePosition position() const override { return CaptureDevicePosition::Front; }
    [[nodiscard]] std::vector<CaptureDeviceFormat> formats() const override { return {format_}; }
    [[nodiscard]] std::optional<CaptureDeviceFormat> activeFormat() const override { return format_; }
    std::optional<Error> lockForConfiguration() override { return std::nullopt; }
    void unlockForConfiguration() override {}
    void setActiveFormat(const CaptureDeviceFormat&) override {}
    [[nodiscard]] bool isFocusPointOfInterestSupported() const override { return false; }
    void setFocusPointOfInterest(Point) override {}
    [[nodiscard]] bool isFocusModeSupported(FocusMode) const override { return false; }
    void setFocusMode(FocusMode) override {}
    [[nodiscard]] bool hasTorch() const override { return false; }
    void setTorchMode(TorchMode) override {}

private:
    const CaptureDeviceFormat format_;
};

class PipeInput final : public CaptureDeviceInput {
public:
    explicit PipeInput(std::shared_ptr<CaptureDevice> device) : device_(std::move(device)) {}
    [[nodiscard]] const std::shared_ptr<CaptureDevice>& device() const override { return device_; }

private:
    const std::shared_ptr<CaptureDevice> device_;
};

/// The frames are upright already, so that there is nothing to turn.
class PipeConnection final : public CaptureConnection {
public:
    [[nodiscard]] bool isVideoOrientationSupported() const override { return false; }
    void setVideoOrientation(VideoOrientation) override {}
    [[nodiscard]] VideoOrientation videoOrientation() const override { return VideoOrientation::Portrait; }
};

/// Hands frames to the delegate's queue. One at most waits there: a newer one takes its place, and a notice of the
/// older one follows.
class PipeVideoOutput final : public VideoDataOutput, public std::enable_shared_from_this<PipeVideoOutput> {
public:
    [[nodiscard]] std::vector<std::shared_ptr<CaptureConnection>> connections() const override { return {connection_}; }
    void setPixelFormat(PixelFormat format) override {
        if (format != 0 && format != kPixelFormat32BGRA) log("Pipe: frames come as 32BGRA only");
    }
    void setAlwaysDiscardsLateVideoFrames(bool) override {}
    void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue) override {
        // What was there before is released after the lock: the end of a queue runs what it still holds.
        const std::lock_guard lock(mutex_);
        delegate_ = std::move(delegate);
        queue_.swap(queue);
        waiting_.reset();
    }
    [[nodiscard]] VideoSettings recommendedVideoSettings(const std::string&) const override {
        return {.codec = kVideoCodecTypeH264, .width = 0, .height = 0, .compressionProperties = {}};
    }

    void deliver(std::shared_ptr<SampleBuffer> frame) {
        std::shared_ptr<Queue> queue;
        {
            const std::lock_guard lock(mutex_);
            if (!queue_ || delegate_.expired()) return;
            queue = queue_;
            waiting_.swap(frame);
        }
        const auto late = std::move(frame);
        queue->async(
            [weak = weak_from_this(), notice = late ? SampleBuffer::makeVideo(nullptr, late->timing()) : nullptr] {
                const auto self = weak.lock();
                if (!self) return;
                std::shared_ptr<CaptureOutputDelegate> to;
                std::shared_ptr<SampleBuffer> newest;
                {
                    const std::lock_guard lock(self->mutex_);
                    to = self->delegate_.lock();
                    if (!notice) newest = std::exchange(self->waiting_, nullptr);
                }
                if (to && notice) to->captureOutputDidDropSampleBuffer(*self, notice, self->connection_);
                if (to && newest) to->captureOutputDidOutputSampleBuffer(*self, newest, self->connection_);
            });
    }

private:
    const std::shared_ptr<PipeConnection> connection_ = std::make_shared<PipeConnection>();
    std::mutex mutex_;
    std::weak_ptr<CaptureOutputDelegate> delegate_;  // guarded by mutex_
    std::shared_ptr<Queue> queue_;                   // guarded by mutex_
    std::shared_ptr<SampleBuffer> waiting_;          // guarded by mutex_; for the next delivery
};

class PipeSession final : public CaptureSession {
public:
    explicit PipeSession(const PipeFormat& format) : format_(format), end_(::eventfd(0, EFD_CLOEXEC)) {}
    PipeSession(const PipeSession&) = delete;
    PipeSession& operator=(const PipeSession&) = delete;
    ~PipeSession() override {
        stopRunning();
        ::close(end_);
    }

    [[nodiscard]] std::recursive_mutex& monitor() override { return monitor_; }
    void beginConfiguration() override {}
    void commitConfiguration() override {}
    [[nodiscard]] bool canSetSessionPreset(const std::string&) const override { return true; }
    void setSessionPreset(const std::string&) override {}
    [[nodiscard]] bool canAddInput(const CaptureDeviceInput&) const override { return !hasInput_; }
    void addInput(std::shared_ptr<CaptureDeviceInput>) override { hasInput_ = true; }
    void removeInput(const std::shared_ptr<CaptureDeviceInput>&) override { hasInput_ = false; }
    [[nodiscard]] bool canAddOutput(const CaptureOutput& output) const override {
        return outputs().empty() && dynamic_cast<const PipeVideoOutput*>(&output);
    }
    void addOutput(std::shared_ptr<CaptureOutput> output) override {
        const std::lock_guard lock(mutex_);
        output_ = std::dynamic_pointer_cast<PipeVideoOutput>(std::move(output));
    }
    void removeOutput(const std::shared_ptr<CaptureOutput>&) override {
        const std::lock_guard lock(mutex_);
        output_.reset();
    }
    [[nodiscard]] std::vector<std::shared_ptr<CaptureOutput>> outputs() const override {
        std::vector<std::shared_ptr<CaptureOutput>> all;
        if (auto output = currentOutput()) all.push_back(std::move(output));
        return all;
    }
    [[nodiscard]] std::chrono::nanoseconds masterClockTime() const override { return now(); }

    [[nodiscard]] bool isRunning() const override { return running_; }
    void startRunning() override {
        const std::lock_guard lock(starting_);
        if (running_) return;
        if (reader_.joinable()) reader_.join();  // the pipe had ended by itself
        running_ = true;
        reader_ = std::thread([this] { readFrames(); });
    }
    /// The reader never waits for a delivery, so that this may be called from within one.
    void stopRunning() override {
        const std::lock_guard lock(starting_);
        if (!reader_.joinable()) return;
        ::eventfd_write(end_, 1);
        reader_.join();
        eventfd_t ignored = 0;
        ::eventfd_read(end_, &ignored);
        running_ = false;
    }

private:
    [[nodiscard]] std::shared_ptr<PipeVideoOutput> currentOutput() const {
        const std::lock_guard lock(mutex_);
        return output_;
    }

    void readFrames() {
        const auto pool = PixelBufferPool::create();
        const auto layout = PixelBufferLayout::make(format_.width, format_.height, kPixelFormat32BGRA);
        for (;;) {
            const auto picture = layout ? pool->acquire(*layout) : nullptr;
            if (!picture || !readInto(*picture)) break;
            if (const auto output = currentOutput())
                output->deliver(SampleBuffer::makeVideo(picture, {.presentationTime = now(), .duration = {}}));
        }
        running_ = false;
    }

    /// False if the pipe has ended, has failed, or the session is stopped.
    bool readInto(PixelBuffer& picture) {
        for (int row = 0; row < picture.height(); ++row) {
            std::uint8_t* const begin = picture.data() + static_cast<std::size_t>(row) * picture.bytesPerRow();
            const std::size_t length = picture.layout().rowBytes();
            for (std::size_t got = 0; got < length;) {
                pollfd files[] = {{end_, POLLIN, 0}, {format_.descriptor, POLLIN, 0}};
                if (::poll(files, 2, -1) < 0 && errno != EINTR) return false;
                if (files[0].revents != 0) return false;
                if (files[1].revents == 0) continue;
                const ssize_t count = ::read(format_.descriptor, begin + got, length - got);
                if (count < 0 && errno != EINTR && errno != EAGAIN) log(std::string("Pipe: ") + std::strerror(errno));
                if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN)) return false;
                if (count > 0) got += static_cast<std::size_t>(count);
            }
        }
        return true;
    }

    const PipeFormat format_;
    const int end_;  ///< readable: the reader is to end
    std::recursive_mutex monitor_;
    std::atomic<bool> hasInput_{false};
    std::atomic<bool> running_{false};
    mutable std::mutex mutex_;
    std::shared_ptr<PipeVideoOutput> output_;  // guarded by mutex_
    std::mutex starting_;
    std::thread reader_;  // guarded by starting_
};

class PipeSystem final : public CaptureSystem {
public:
    explicit PipeSystem(const PipeFormat& format) : format_(format), device_(std::make_shared<PipeDevice>(format)) {}

    std::shared_ptr<CaptureDeviceDiscoverySession> discoverDevices(const std::vector<std::string>&, MediaType mediaType,
                                                                   CaptureDevicePosition) override {
        auto found = std::make_shared<CaptureDeviceDiscoverySession>();
        if (mediaType == MediaType::Video) found->devices.push_back(device_);
        return found;
    }
    std::shared_ptr<CaptureDevice> defaultDevice(MediaType mediaType) override {
        return mediaType == MediaType::Video ? device_ : nullptr;
    }
    Expected<std::shared_ptr<CaptureDeviceInput>> makeDeviceInput(
        const std::shared_ptr<CaptureDevice>& device) override {
        return std::shared_ptr<CaptureDeviceInput>(std::make_shared<PipeInput>(device));
    }
    std::shared_ptr<CaptureSession> makeSession() override { return std::make_shared<PipeSession>(format_); }
    std::shared_ptr<VideoDataOutput> makeVideoDataOutput() override { return std::make_shared<PipeVideoOutput>(); }
    std::shared_ptr<AudioDataOutput> makeAudioDataOutput() override { return nullptr; }
    std::shared_ptr<MetadataOutput> makeMetadataOutput() override { return nullptr; }
    AuthorizationStatus authorizationStatus(MediaType mediaType) override {
        return mediaType == MediaType::Video ? AuthorizationStatus::Authorized : AuthorizationStatus::Denied;
    }
    void requestAccess(MediaType mediaType, std::function<void(bool granted)> completion) override {
        completion(mediaType == MediaType::Video);
    }

private:
    const PipeFormat format_;
    const std::shared_ptr<PipeDevice> device_;
};

}  // namespace

std::shared_ptr<selvio::CaptureSystem> makePipeCaptureSystem(const PipeFormat& format) {
    return std::make_shared<PipeSystem>(format);
}

}  // namespace example
