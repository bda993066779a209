// A simulated camera, and a session through which all that it delivers can be seen.
#pragma once

#include <SelvioFacialCapture/simulated/SimulatedPlatform.h>

#include "tests/simulated/SimulatedSupport.h"
#include "tests/support/CaptureProbe.h"
#include "tests/support/ManualClock.h"
#include "tests/support/ManualQueue.h"

namespace selvio {

/// A capture system and one session with everything joined.
struct SimulatedRig {
    explicit SimulatedRig(const std::string& keyFrames = kSteady,
                          const SimulatedCaptureOptions& options = {.pacing = SimulatedPacing::Manual},
                          const std::shared_ptr<Queue>& otherQueue = nullptr)
        : frames(spotFrames(keyFrames)), probe(std::make_shared<test::CaptureProbe>(otherQueue ? otherQueue : queue)) {
        clock->advance(std::chrono::seconds(1000));
        if (!otherQueue) platform.clock = clock;
        system = useSimulatedCamera(platform, frames, options);
        session = system->makeSession();
        for (const auto mediaType : {MediaType::Video, MediaType::Audio})
            session->addInput(inputs.emplace_back(system->makeDeviceInput(system->defaultDevice(mediaType)).value()));
        session->addOutput(video = system->makeVideoDataOutput());
        session->addOutput(audio = system->makeAudioDataOutput());
        session->addOutput(metadata = system->makeMetadataOutput());
        video->setSampleBufferDelegate(probe, probe->queue_);
        audio->setSampleBufferDelegate(probe, probe->queue_);
        metadata->setMetadataObjectsDelegate(probe, probe->queue_);
    }
    void step(std::chrono::nanoseconds time) {
        system->deliverFrameAt(time);
        queue->runAll();
    }
    /// How many frames, drop notices and codes have come.
    [[nodiscard]] std::vector<std::size_t> received() const {
        return {probe->frames_.size(), probe->drops_.size(), probe->objects_.size()};
    }

    Platform platform;
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>();
    std::shared_ptr<const SimulatedFrames> frames;
    std::shared_ptr<test::CaptureProbe> probe;
    std::shared_ptr<SimulatedCaptureSystem> system;
    std::shared_ptr<CaptureSession> session;
    std::vector<std::shared_ptr<CaptureDeviceInput>> inputs;
    std::shared_ptr<VideoDataOutput> video;
    std::shared_ptr<AudioDataOutput> audio;
    std::shared_ptr<MetadataOutput> metadata;
};

}  // namespace selvio
