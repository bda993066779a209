// Everything that a host includes.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureAnalyzer.h>
#include <SelvioFacialCapture/SelvioFacialCaptureAnalyzerDelegate.h>
#include <SelvioFacialCapture/SelvioFacialCaptureCamera.h>
#include <SelvioFacialCapture/SelvioFacialCaptureCameraDelegate.h>
#include <SelvioFacialCapture/SelvioFacialCaptureCameraParameters.h>
#include <SelvioFacialCapture/SelvioFacialCaptureImageUtilities.h>
#include <SelvioFacialCapture/SelvioFacialCaptureObixData.h>
#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>
#include <SelvioFacialCapture/SelvioFacialCaptureResults.h>
#include <SelvioFacialCapture/SelvioFacialCaptureStatus.h>
#include <SelvioFacialCapture/SelvioFacialCaptureUxpEventManager.h>
#include <SelvioFacialCapture/SelvioFacialCaptureVersion.h>
#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/platform/Platform.h>
