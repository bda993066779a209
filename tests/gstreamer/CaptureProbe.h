// A delegate that remembers, and lets a test wait for what it is to see.
#pragma once

#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/platform/Capture.h>

#include <support/LogCapture.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace selvio::test {

class CaptureProbe : public CaptureOutputDelegate {
public:
    void captureOutputDidOutputSampleBuffer(const CaptureOutput&, const std::shared_ptr<SampleBuffer>& sample,
                                            const std::shared_ptr<CaptureConnection>&) override {
        std::unique_lock lock(mutex_);
        (sample->audio() != nullptr ? sounds_ : frames_).push_back(sample->timing());
        if (sample->imageBuffer()) last_ = *sample->formatDescription();
        changed_.notify_all();
        changed_.wait(lock, [this] { return !blocked_; });
        if (onSample) onSample(sample);
    }
    void captureOutputDidDropSampleBuffer(const CaptureOutput&, const std::shared_ptr<SampleBuffer>& sample,
                                          const std::shared_ptr<CaptureConnection>&) override {
        const std::lock_guard lock(mutex_);
        if (!sample->imageBuffer() && sample->timing().isValid()) ++drops_;
        changed_.notify_all();
    }
    void captureOutputDidOutputMetadataObjects(const CaptureOutput&, const std::vector<MetadataObject>& objects,
                                               const std::shared_ptr<CaptureConnection>&) override {
        const std::lock_guard lock(mutex_);
        objects_.insert(objects_.end(), objects.begin(), objects.end());
        changed_.notify_all();
    }

    /// Waits until the condition holds, for ten seconds at most.
    template <typename Condition>
    bool waitFor(Condition condition) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), condition);
    }
    bool waitForFrames(std::size_t more) {
        const std::size_t wanted = frameCount() + more;
        return waitFor([&] { return frames_.size() >= wanted; });
    }
    bool waitForSize(int width, int height) {
        return waitFor([&] { return last_.width == width && last_.height == height; });
    }
    void block(bool blocked) {
        const std::lock_guard lock(mutex_);
        blocked_ = blocked;
        changed_.notify_all();
    }
    std::size_t frameCount() {
        const std::lock_guard lock(mutex_);
        return frames_.size();
    }
    VideoFormatDescription lastFormat() {
        const std::lock_guard lock(mutex_);
        return last_;
    }

    std::function<void(const std::shared_ptr<SampleBuffer>&)> onSample;  // set before frames flow

    // To be read while nothing flows, or inside waitFor.
    std::vector<SampleTiming> frames_, sounds_;
    std::vector<MetadataObject> objects_;
    int drops_ = 0;

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    VideoFormatDescription last_;
    bool blocked_ = false;
};

/// A session with one camera, wired as a camera object wires it.
struct Rig {
    explicit Rig(const std::shared_ptr<CaptureSystem>& system, const std::shared_ptr<CaptureDevice>& device, PixelFormat format = 0)
        : session(system->makeSession()), output(system->makeVideoDataOutput()), camera(device) {
        input = system->makeDeviceInput(device).value();
        session->addInput(input);
        output->setPixelFormat(format);
        output->setAlwaysDiscardsLateVideoFrames(true);
        output->setSampleBufferDelegate(probe, queue);
        session->addOutput(output);
    }
    ~Rig() {
        session->stopRunning();
        output->setSampleBufferDelegate({}, nullptr);
    }

    std::shared_ptr<CaptureProbe> probe = std::make_shared<CaptureProbe>();
    std::shared_ptr<SerialQueue> queue = std::make_shared<SerialQueue>("frames");
    std::shared_ptr<CaptureSession> session;
    std::shared_ptr<VideoDataOutput> output;
    std::shared_ptr<CaptureDevice> camera;
    std::shared_ptr<CaptureDeviceInput> input;
};

/// How many pixels of a frame's middle row are nearly white.
inline int brightPixels(const SampleBuffer& sample) {
    const PixelBuffer& pixels = *sample.imageBuffer();
    const std::uint8_t* const row = pixels.data() + pixels.bytesPerRow() * static_cast<std::size_t>(pixels.height() / 2);
    const int step = pixels.planeCount() == 2 ? 1 : 4;
    int bright = 0;
    for (int x = 0; x < pixels.width(); ++x) bright += row[x * step] > 0xD0 ? 1 : 0;
    return bright;
}

/// The middle one of all distances between frames, in seconds: a busy machine leaves out a frame now and then.
inline double middleDistance(const std::vector<SampleTiming>& frames) {
    std::vector<double> distances;
    for (std::size_t i = 1; i < frames.size(); ++i) {
        distances.push_back(std::chrono::duration<double>(*frames[i].presentationTime - *frames[i - 1].presentationTime).count());
    }
    const auto middle = distances.begin() + static_cast<std::ptrdiff_t>(distances.size() / 2);
    std::ranges::nth_element(distances, middle);
    return *middle;
}

/// What a run that ends by itself says, waiting ten seconds for it at most: the line comes just after the session has ceased to run.
inline std::vector<std::string> linesAtTheEndOf(const CaptureSession& session, LogCapture& log) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::vector<std::string> lines;
    while ((session.isRunning() || lines.empty()) && std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
        if (!session.isRunning()) lines = log.take();
    }
    return lines;
}

}  // namespace selvio::test
