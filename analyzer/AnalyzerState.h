// What an analyzer remembers.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureAnalyzer.h>
#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/base/MemberMutex.h>

#include <atomic>
#include <mutex>
#include <new>

#include "analyzer/FrameHistory.h"
#include "analyzer/rules/GoodFrameGate.h"
#include "analyzer/rules/PreviewGeometry.h"

namespace selvio {

/// Runs a block that must not throw into its queue: where memory is short, says what was given up and answers false.
template <typename Block>
bool withoutThrowing(const char* givenUp, const Block& block) {
    try {
        block();
        return true;
    } catch (const std::bad_alloc&) {
        log(std::string(givenUp) + ": not enough memory");
        return false;
    }
}

}  // namespace selvio

struct SelvioFacialCaptureAnalyzer::State {
    explicit State(const selvio::Platform& ports);

    /// Platforms of a lower level of services capture manually only.
    static constexpr int kAutomaticAnalysisLevel = 12;

    [[nodiscard]] selvio::rules::GateFlags gateFlags() const;
    [[nodiscard]] bool canAnalyze() const {
        return platform.serviceLevel >= kAutomaticAnalysisLevel && sequenceRequestHandler != nullptr;
    }

    const selvio::Platform platform;
    const selvio::InterfaceOrientation statusbarOrientation;
    const std::shared_ptr<selvio::SequenceRequestHandler> sequenceRequestHandler;
    const std::shared_ptr<selvio::FaceDetector> faceDetector;
    const std::shared_ptr<selvio::PixelBufferPool> framePool;
    selvio::FrameHistory history;

    std::atomic<bool> selectionInProgress{false};
    std::atomic<bool> smileDetectionInProgress{false};
    std::atomic<bool> shouldSkipFrames{false};
    std::atomic<bool> shouldSelectCurrentFrame{false};
    std::atomic<bool> manualOnly{false};
    std::atomic<bool> shouldHoldStill{false};
    std::atomic<bool> shouldStartCountdown{true};
    std::atomic<bool> inProgress{false};
    std::atomic<bool> cancelling{false};
    std::atomic<std::int64_t> smileStatus{0};
    std::atomic<std::uint32_t> exifOrientation{0};

    mutable selvio::MemberMutex mutex;
    std::shared_ptr<SelvioFacialCaptureObixData> obixData;        // guarded by mutex
    std::weak_ptr<SelvioFacialCaptureAnalyzerDelegate> delegate;  // guarded by mutex
    std::shared_ptr<SelvioFacialCaptureParameters> parameters;    // guarded by mutex; null once spent
    std::shared_ptr<SelvioFacialCaptureResults> results;          // guarded by mutex; null once spent
    std::shared_ptr<selvio::SampleBuffer> sampleBuffer;           // guarded by mutex; the frame under analysis
    FrameId heldFrame = kNoFrame;                                 // guarded by mutex; which frame that is
    FrameId lastFrame = kNoFrame;                                 // guarded by mutex
    std::optional<selvio::Image> ciImage;     // guarded by mutex; the frame that the smile test examines
    selvio::rules::PreviewGeometry geometry;  // guarded by mutex
    double faceHorizontalFill = 0.0;          // guarded by mutex
    selvio::Point noseMiddle;                 // guarded by mutex
    selvio::Point lipLeft;                    // guarded by mutex
    selvio::Point lipRight;                   // guarded by mutex

    std::mutex eventMutex;  // held while an event is logged, so that none follows after `stop`; taken before `mutex`
    bool spent = false;     // guarded by eventMutex

    // Held while a selection or `cancel` closes the record and fills the results, so that neither mixes with the other;
    // taken before eventMutex.
    std::mutex closingMutex;

    std::mutex motionMutex;  // held while the feed is started or stopped; nothing else is taken inside
    std::shared_ptr<selvio::MotionManager> motionManager;  // guarded by motionMutex; null once spent

    std::mutex visionMutex;  // held while a request is performed: the handler serves one thread at a time; taken before
                             // the others

    // Last, so that it is joined first: its blocks use the members above.
    const std::shared_ptr<selvio::Queue> analysisQueue;
};
