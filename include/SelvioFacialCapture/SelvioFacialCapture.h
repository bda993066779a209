// Everything that a host includes. A capture, after `selvio::setDefaultPlatform(selvio::makeLinuxPlatform())`:
//
//     #include <SelvioFacialCapture/SelvioFacialCapture.h>
//
//     std::string captureOnePhotograph() {
//         const auto mainQueue = selvio::MainQueue::shared();
//         const auto parameters = std::make_shared<SelvioFacialCaptureParameters>();
//         parameters->setCountdownTime(0);
//         const auto analyzer = SelvioFacialCaptureAnalyzer::initWithParameters(parameters);
//         const auto camera = SelvioFacialCaptureCamera::initWithPreset(
//             selvio::kCaptureSessionPreset1280x720, selvio::kPixelFormat32BGRA, selvio::CaptureDevicePosition::Front,
//             {0, 0, 1080, 1920});
//         const auto guidance = std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
//         guidance->detectionSuccess = [&](const auto&) { mainQueue->quit(); };
//         analyzer->setDelegate(guidance);  // held weakly, as the camera's delegate is
//         const auto frames = std::make_shared<SelvioFacialCaptureCameraDelegate>();
//         frames->didReceiveSampleBuffer = [&](const auto& frame) { analyzer->analyzeSampleBuffer(frame); };
//         camera->setDelegate(frames);
//         camera->start();
//         analyzer->resume();
//         mainQueue->run();
//         camera->stop();
//         camera->shutdown();
//         const auto photograph = analyzer->results()->encodedSelectedImage();  // base64 of a JPEG
//         analyzer->stop();
//         return photograph.value_or("");
//     }
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
