// A session with one camera, and what every camera must do.
#pragma once

#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/linux/Capture.h>

#include "support/CaptureProbe.h"
#include "support/ComesTrue.h"
#include "support/LogCapture.h"
#include "support/MediaProbe.h"

#include <gmock/gmock.h>

#include <algorithm>

namespace selvio {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using ::testing::Contains;
using ::testing::HasSubstr;

/// A camera and the system that has found it.
using Camera = std::pair<std::shared_ptr<CaptureSystem>, std::shared_ptr<CaptureDevice>>;

/// A session with one camera, wired as a camera object wires it.
struct Rig {
    explicit Rig(const Camera& camera, PixelFormat format = 0,
                 VideoOrientation orientation = VideoOrientation::LandscapeRight)
        : session(camera.first->makeSession()),
          output(camera.first->makeVideoDataOutput()),
          input(camera.first->makeDeviceInput(camera.second).value()) {
        session->addInput(input);
        output->setPixelFormat(format);
        output->setAlwaysDiscardsLateVideoFrames(true);
        output->setSampleBufferDelegate(probe, queue);
        session->addOutput(output);
        output->connections().at(0)->setVideoOrientation(orientation);
    }
    ~Rig() {
        session->stopRunning();
        output->setSampleBufferDelegate({}, nullptr);
    }
    /// Starts, takes so many frames, and stops.
    void capture(std::size_t frames) {
        session->startRunning();
        EXPECT_TRUE(probe->waitForFrames(frames));
        session->stopRunning();
        queue->drain();
    }

    std::shared_ptr<SerialQueue> queue = std::make_shared<SerialQueue>("frames");
    std::shared_ptr<CaptureProbe> probe = std::make_shared<CaptureProbe>(queue);
    std::shared_ptr<CaptureSession> session;
    std::shared_ptr<VideoDataOutput> output;
    std::shared_ptr<CaptureDeviceInput> input;
};

/// What a camera of bright frames, 30 in a second, delivers in one of its formats.
inline void expectDelivery(const Camera& camera, const VideoFormatDescription& sensor, VideoOrientation orientation,
                           std::pair<int, int> size) {
    SCOPED_TRACE(camera.second->localizedName() + " " + std::to_string(sensor.mediaSubType));
    camera.second->setActiveFormat({sensor, 30});
    Rig rig(camera, sensor.mediaSubType, orientation);
    int dark = 0;
    rig.probe->onFrame = [&](const auto& sample) {
        const PixelBuffer& pixels = *sample->imageBuffer();
        for (int x = 0; x < pixels.width(); ++x) dark += *sampleAt(pixels, x, pixels.height() / 2) <= 0xD0;
    };
    const auto before = rig.session->masterClockTime();
    rig.capture(32);
    EXPECT_EQ(rig.probe->last_, (VideoFormatDescription{sensor.mediaSubType, size.first, size.second}));
    EXPECT_EQ(dark, 0);
    const auto& frames = rig.probe->frames_;
    ASSERT_GE(frames.size(), 32U);
    std::vector<nanoseconds> distances;
    for (std::size_t i = 1; i < frames.size(); ++i)
        distances.push_back(*frames[i].presentationTime - *frames[i - 1].presentationTime);
    std::ranges::sort(distances);
    EXPECT_GT(distances.front(), 0ns);
    // The middle one of all: a busy machine leaves out a frame now and then.
    EXPECT_LT(std::chrono::abs(distances[distances.size() / 2] - 33ms), 6ms);
    EXPECT_GE(*frames.front().presentationTime, before);
    EXPECT_LE(*frames.back().presentationTime, rig.session->masterClockTime());
}

/// A camera that can be held against its frames: more of them than it has buffers are kept, and must stay as they came.
inline void expectFramesMayBeHeld(const Camera& camera) {
    Rig rig(camera, kPixelFormat420v);
    const auto rowOf = [](const SampleBuffer& sample) {
        const PixelBuffer& pixels = *sample.imageBuffer();
        return std::string(reinterpret_cast<const char*>(pixels.data()), static_cast<std::size_t>(pixels.width()));
    };
    std::vector<std::pair<std::shared_ptr<SampleBuffer>, std::string>> kept;
    rig.probe->onFrame = [&](const auto& sample) { kept.emplace_back(sample, rowOf(*sample)); };
    rig.capture(40);
    for (const auto& [sample, row] : kept) EXPECT_TRUE(rowOf(*sample) == row) << "a frame was written over";
}

/// What a run that ends by itself says: the line comes just after the session has ceased to run.
inline std::vector<std::string> linesAtTheEndOf(const CaptureSession& session, LogCapture& log) {
    std::vector<std::string> lines;
    comesTrue([&] {
        if (!session.isRunning()) lines = log.take();
        return !lines.empty();
    });
    return lines;
}

}  // namespace selvio
