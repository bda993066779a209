// What the analyzer tells its host.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureResults.h>

#include <functional>
#include <memory>

/// The host's side of a capture. An empty member means that the host does not implement it, and the call is skipped.
/// Fill the members before the struct is handed to `setDelegate`, and keep it in a shared_ptr: the analyzer holds it
/// weakly.
struct SelvioFacialCaptureAnalyzerDelegate {
    using Results = std::shared_ptr<SelvioFacialCaptureResults>;

    /// The statuses of an analysed frame that did not end in a selection. Main queue.
    std::function<void(const Results& results)> detectionResults;
    /// Show a countdown of the parameters' `countdownTime` seconds and call `selectFrame` at its end. Main queue.
    ///
    ///     startCountdown ──▶ counting ──seconds over──▶ selectFrame ──▶ detectionSuccess
    ///                         │    ▲
    ///              status ≠ 10│    │startCountdown, or status 10
    ///                         ▼    │
    ///                        broken off
    ///
    /// While the face stays well placed, `detectionResults` reports status 10. With any other status the face is lost:
    /// end the countdown, lest `selectFrame` take a bad frame. Start it anew with the next call, or with the next
    /// status 10 if it does not run, but not between `selectFrame` and the next `resume`. The block that ends a
    /// countdown may come to run after the capture: hold the analyzer weakly in it, and let it find out whether its
    /// countdown is still the one that counts. The README has such a block.
    std::function<void()> startCountdown;
    /// A frame has been selected: `selectedImage`, `obixDataString` and `resultCode` are set, and
    /// `encodedSelectedImage` unless the picture could not be encoded, which is a line in the log.
    /// Main queue.
    std::function<void(const Results& results)> detectionSuccess;
    /// The capture was cancelled: `obixDataString` and `resultCode` are set. The thread that called `cancel`, before
    /// `cancel` returns.
    std::function<void(const Results& results)> detectionCancelled;
    /// The system cannot analyse frames automatically; only manual capture works. The thread that called `setDelegate`,
    /// before it returns.
    std::function<void()> manualOnly;
};
