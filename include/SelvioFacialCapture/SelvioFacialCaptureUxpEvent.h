// What the log of a capture knows as events.
#pragma once

#include <cstdint>

/// The events of the log; each enumerator's comment is the code that the log writes.
enum SelvioFacialCaptureUxpEvent : std::int64_t {
    SelvioFacialCaptureUxpEventStartAuto = 0,     ///< "SA"; also what a status without an event of its own is logged as
    SelvioFacialCaptureUxpEventStartManual = 1,   ///< "SS"
    SelvioFacialCaptureUxpEventPauseReason1 = 2,  ///< "IS"
    SelvioFacialCaptureUxpEventPauseReason2 = 3,  ///< "HS"
    SelvioFacialCaptureUxpEventPauseReason4 = 4,  ///< "RS"
    SelvioFacialCaptureUxpEventPauseReason3 = 5,  ///< "MF"
    SelvioFacialCaptureUxpEventFinalizedAuto = 6,     ///< "MT"
    SelvioFacialCaptureUxpEventFinalizedManual = 7,   ///< "ST"
    SelvioFacialCaptureUxpEventCancelled = 8,         ///< "C"
    SelvioFacialCaptureUxpEventFaceNotFound = 9,      ///< "FENF"
    SelvioFacialCaptureUxpEventNotCentered = 10,      ///< "FENC"
    SelvioFacialCaptureUxpEventMoreThanOneFace = 11,  ///< "FEMF"
    SelvioFacialCaptureUxpEventFaceRoll = 12,         ///< "FER"
    SelvioFacialCaptureUxpEventFacePitch = 13,        ///< "FEP"
    SelvioFacialCaptureUxpEventFaceYaw = 14,          ///< "FEY"
    SelvioFacialCaptureUxpEventMoveCloser = 15,       ///< "FETF"
    SelvioFacialCaptureUxpEventTooClose = 16,         ///< "FETC"
    SelvioFacialCaptureUxpEventHoldStill = 17,        ///< "FENS"
    SelvioFacialCaptureUxpEventStopSmiling = 18,      ///< "FESS"
    SelvioFacialCaptureUxpEventCountdown = 19,        ///< "FHS"
    SelvioFacialCaptureUxpEventGoodFrame = 20,        ///< "FS"; also the idle marker after `clear`
};
