// A delegate of capture outputs that remembers, and lets a test wait for what it is to see.
#pragma once

#include <SelvioFacialCapture/platform/Capture.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace selvio {

struct CaptureProbe : CaptureOutputDelegate {
    /// `queue`: the one on which everything is to come.
    explicit CaptureProbe(std::shared_ptr<Queue> queue) : queue_(std::move(queue)) {}

    void captureOutputDidOutputSampleBuffer(const CaptureOutput& output, const std::shared_ptr<SampleBuffer>& sample,
                                            const std::shared_ptr<CaptureConnection>& connection) override {
        EXPECT_TRUE(queue_->isCurrent());
        EXPECT_TRUE(connection);
        std::unique_lock lock(mutex_);
        if (dynamic_cast<const AudioDataOutput*>(&output)) return sounds_.push_back(*sample->timing().presentationTime);
        frames_.push_back(sample->timing());
        note("", *sample);
        last_ = *sample->formatDescription();
        changed_.notify_all();
        lock.unlock();
        if (onFrame) onFrame(sample);
    }
    void captureOutputDidDropSampleBuffer(const CaptureOutput&, const std::shared_ptr<SampleBuffer>& sample,
                                          const std::shared_ptr<CaptureConnection>&) override {
        EXPECT_TRUE(queue_->isCurrent());
        EXPECT_FALSE(sample->imageBuffer());
        const std::lock_guard lock(mutex_);
        note("-", *sample);
    }
    void captureOutputDidOutputMetadataObjects(const CaptureOutput&, const std::vector<MetadataObject>& objects,
                                               const std::shared_ptr<CaptureConnection>&) override {
        EXPECT_TRUE(queue_->isCurrent());
        const std::lock_guard lock(mutex_);
        objects_.insert(objects_.end(), objects.begin(), objects.end());
        for (const MetadataObject& object : objects) told_ += object.stringValue.value() + " ";
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
    std::size_t frameCount() {
        const std::lock_guard lock(mutex_);
        return frames_.size();
    }

    std::function<void(const std::shared_ptr<SampleBuffer>&)> onFrame;  // set before frames flow

    // To be read while nothing flows, or inside waitFor.
    std::vector<SampleTiming> frames_;
    std::vector<std::chrono::nanoseconds> sounds_;
    std::vector<MetadataObject> objects_;
    VideoFormatDescription last_;
    /// Frames by their milliseconds, drop notices as "-" and those, codes by their texts; a space after each.
    std::string told_;

    const std::shared_ptr<Queue> queue_;

private:
    void note(const char* what, const SampleBuffer& sample) {
        const auto time = *sample.timing().presentationTime % std::chrono::seconds(1000);
        told_ += what + std::to_string(time / std::chrono::milliseconds(1)) + " ";
    }

    std::mutex mutex_;
    std::condition_variable changed_;
};

}  // namespace selvio
