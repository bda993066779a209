// What the analyzer reports of a frame, and how a capture ended.
#pragma once

#include <cstdint>

/// What is wrong with a frame. The numeric order is the priority order: the lower value is the more important one.
enum SelvioFacialCaptureStatus : std::int64_t {
    SelvioFacialCaptureStatusNone = 0,
    SelvioFacialCaptureStatusFaceNotFound = 1,
    SelvioFacialCaptureStatusMoreThanOneFace = 2,
    SelvioFacialCaptureStatusFaceRoll = 3,
    SelvioFacialCaptureStatusFacePitch = 4,
    SelvioFacialCaptureStatusFaceYaw = 5,
    SelvioFacialCaptureStatusMoveCloser = 6,
    SelvioFacialCaptureStatusTooClose = 7,
    SelvioFacialCaptureStatusNotCentered = 8,
    SelvioFacialCaptureStatusHoldStill = 9,
    SelvioFacialCaptureStatusCountdown = 10,
    SelvioFacialCaptureStatusTooDark = 11,          ///< part of the vocabulary; no check produces it
    SelvioFacialCaptureStatusNonUniformLight = 12,  ///< part of the vocabulary; no check produces it
    SelvioFacialCaptureStatusStopSmiling = 13,
    SelvioFacialCaptureStatusGoodFrame = 14,
};

/// How a capture ended.
enum SelvioFacialCaptureResultCode : std::int64_t {
    SelvioFacialCaptureResultCodeNone = 0,
    SelvioFacialCaptureResultCodeSuccessStillCamera = 1,
    SelvioFacialCaptureResultCodeSuccessVideo = 2,
    SelvioFacialCaptureResultCodeCancelled = 3,
};
