#include "analyzer/rules/GoodFrameGate.h"

#include <cmath>

namespace selvio::rules {

bool isMoving(const RotationRate& rate) {
    constexpr double kLimit = 0.1;
    return std::abs(rate.x) > kLimit || std::abs(rate.y) > kLimit || std::abs(rate.z) > kLimit;
}

GoodFrameDecision decideGoodFrame(const GoodFrameInput& input) {
    if (input.flags.anySet()) return GoodFrameDecision::Drop;
    if (input.selectOnSmile || input.mode != SelvioFacialCaptureModeAuto) return GoodFrameDecision::TestSmile;
    if (input.shouldSelectCurrentFrame || input.countdownTime <= 1) return GoodFrameDecision::SelectAutomatically;
    return input.shouldStartCountdown ? GoodFrameDecision::AnnounceCountdown : GoodFrameDecision::ReportCountdown;
}

SelvioFacialCaptureStatus statusOf(GoodFrameDecision decision) {
    switch (decision) {
        case GoodFrameDecision::ReportCountdown:
            return SelvioFacialCaptureStatusCountdown;
        case GoodFrameDecision::SelectAutomatically:
            return SelvioFacialCaptureStatusGoodFrame;
        default:
            return SelvioFacialCaptureStatusNone;
    }
}

std::vector<SelvioFacialCaptureStatus> statusesOfManualSelection(bool manualOnly,
                                                                 std::vector<SelvioFacialCaptureStatus> lastAnalysed) {
    if (manualOnly) return {SelvioFacialCaptureStatusNone};
    if (lastAnalysed.empty()) return {SelvioFacialCaptureStatusGoodFrame};
    return lastAnalysed;
}

SmileJudgement judgeSmile(bool smiling, std::int64_t smileStatus, SelvioFacialCaptureMode mode) {
    constexpr std::int64_t kBeganSmiling = 1;
    constexpr std::int64_t kBeganNeutral = 2;
    const bool manual = mode == SelvioFacialCaptureModeManual;

    SmileJudgement judgement{.smileStatus = smileStatus};
    if (smileStatus == 0) judgement.smileStatus = smiling ? kBeganSmiling : kBeganNeutral;
    if (smiling) {
        if (judgement.smileStatus == kBeganSmiling || manual)
            judgement.status = SelvioFacialCaptureStatusStopSmiling;
        else
            judgement.selection = SmileSelection::OldestFrame;
    } else if (judgement.smileStatus == kBeganSmiling) {
        judgement.selection = SmileSelection::NewestFrame;
    }
    if (manual) judgement.selection = SmileSelection::None;
    return judgement;
}

}  // namespace selvio::rules
