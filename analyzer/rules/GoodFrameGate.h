// What a good frame leads to, as tables from (state, inputs) to (decision, state). Threads and delegates are the
// analyzer's business.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>
#include <SelvioFacialCapture/SelvioFacialCaptureStatus.h>
#include <SelvioFacialCapture/platform/MotionManager.h>

#include <cstdint>
#include <vector>

namespace selvio::rules {

/// Whether the device rotates by more than 0.1 radians per second about any axis: too fast for a sharp picture.
[[nodiscard]] bool isMoving(const RotationRate& rate);

/// The flags that keep a frame from being judged any further.
struct GateFlags {
    bool selectionInProgress = false;
    bool shouldSkipFrames = false;
    bool smileDetectionInProgress = false;

    [[nodiscard]] bool anySet() const { return selectionInProgress || shouldSkipFrames || smileDetectionInProgress; }
};

enum class GoodFrameDecision {
    Drop,                 ///< nothing is reported for this frame
    TestSmile,            ///< judge the smile first
    SelectAutomatically,  ///< this frame ends the capture
    AnnounceCountdown,    ///< tell the host to start its countdown; from now on it is announced
    ReportCountdown,      ///< the countdown runs: report its status
};

struct GoodFrameInput {
    GateFlags flags{};
    bool shouldSelectCurrentFrame = false;
    bool shouldStartCountdown = true;
    bool selectOnSmile = false;
    SelvioFacialCaptureMode mode = SelvioFacialCaptureModeAuto;
    std::int64_t countdownTime = 0;
};

/// Decides on a frame without statuses.
[[nodiscard]] GoodFrameDecision decideGoodFrame(const GoodFrameInput& input);

/// What a frame is reported or selected with: "countdown" while the countdown runs, "good frame" when it is selected
/// automatically.
[[nodiscard]] SelvioFacialCaptureStatus statusOf(GoodFrameDecision decision);

/// The statuses that a manually selected frame is delivered with: those of the last analysed frame, "good frame" if it
/// has none; "none" where only manual capture works.
[[nodiscard]] std::vector<SelvioFacialCaptureStatus> statusesOfManualSelection(
    bool manualOnly, std::vector<SelvioFacialCaptureStatus> lastAnalysed);

/// Which of the kept frames a smile selects.
enum class SmileSelection { None, OldestFrame, NewestFrame };

struct SmileJudgement {
    std::int64_t smileStatus =
        0;  ///< the new state of the run: 1 if its first tested frame showed a smile, 2 if it showed none
    SelvioFacialCaptureStatus status = SelvioFacialCaptureStatusGoodFrame;  ///< this or "stop smiling"
    SmileSelection selection = SmileSelection::None;
};

/// Judges a tested frame. `smileStatus` 0 means that this is the first one of a run of good frames.
/// Who begins with a smile is asked to stop and selected once it has ended; who begins without is selected by smiling.
/// In manual mode a smile is only ever asked to stop, and nothing is selected here.
[[nodiscard]] SmileJudgement judgeSmile(bool smiling, std::int64_t smileStatus, SelvioFacialCaptureMode mode);

}  // namespace selvio::rules
