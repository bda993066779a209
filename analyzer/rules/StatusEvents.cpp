#include "analyzer/rules/StatusEvents.h"

namespace selvio::rules {

SelvioFacialCaptureUxpEvent eventFor(SelvioFacialCaptureStatus status) {
    switch (status) {
        case SelvioFacialCaptureStatusFaceNotFound:
            return SelvioFacialCaptureUxpEventFaceNotFound;
        case SelvioFacialCaptureStatusMoreThanOneFace:
            return SelvioFacialCaptureUxpEventMoreThanOneFace;
        case SelvioFacialCaptureStatusFaceRoll:
            return SelvioFacialCaptureUxpEventFaceRoll;
        case SelvioFacialCaptureStatusFacePitch:
            return SelvioFacialCaptureUxpEventFacePitch;
        case SelvioFacialCaptureStatusFaceYaw:
            return SelvioFacialCaptureUxpEventFaceYaw;
        case SelvioFacialCaptureStatusMoveCloser:
            return SelvioFacialCaptureUxpEventMoveCloser;
        case SelvioFacialCaptureStatusTooClose:
            return SelvioFacialCaptureUxpEventTooClose;
        case SelvioFacialCaptureStatusNotCentered:
            return SelvioFacialCaptureUxpEventNotCentered;
        case SelvioFacialCaptureStatusHoldStill:
            return SelvioFacialCaptureUxpEventHoldStill;
        case SelvioFacialCaptureStatusCountdown:
            return SelvioFacialCaptureUxpEventCountdown;
        case SelvioFacialCaptureStatusStopSmiling:
            return SelvioFacialCaptureUxpEventStopSmiling;
        case SelvioFacialCaptureStatusGoodFrame:
            return SelvioFacialCaptureUxpEventGoodFrame;
        default:
            return SelvioFacialCaptureUxpEventStartAuto;
    }
}

std::optional<SelvioFacialCaptureUxpEvent> eventForPause(std::int64_t reason) {
    constexpr SelvioFacialCaptureUxpEvent kEvents[] = {
        SelvioFacialCaptureUxpEventPauseReason1, SelvioFacialCaptureUxpEventPauseReason2,
        SelvioFacialCaptureUxpEventPauseReason3, SelvioFacialCaptureUxpEventPauseReason4};
    if (reason < 1 || reason > 4) return std::nullopt;
    return kEvents[reason - 1];
}

}  // namespace selvio::rules
