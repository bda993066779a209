// Captures from frames on standard input, and writes the photograph to standard output.
//
//     ffmpeg -re -i selfie.mp4 -f rawvideo -pix_fmt bgra -s 720x1280 - | pipe-camera 720 1280 > selfie.jpg
#include "PipeCamera.h"

#include <SelvioFacialCapture/SelvioFacialCapture.h>
#include <SelvioFacialCapture/imaging/Base64.h>
#include <SelvioFacialCapture/linux/LinuxPlatform.h>

#include <cstdlib>
#include <iostream>

int main(int argc, char** argv) {
    const int width = argc == 3 ? std::atoi(argv[1]) : 0;
    const int height = argc == 3 ? std::atoi(argv[2]) : 0;
    if (!selvio::PixelBufferLayout::make(width, height, selvio::kPixelFormat32BGRA)) {
        std::cerr << "usage: pipe-camera WIDTH HEIGHT <FRAMES >PHOTOGRAPH\n";
        return 2;
    }
    // Everything but the camera comes from the adapters.
    auto platform = selvio::makeLinuxPlatform();
    platform.captureSystem = example::makePipeCaptureSystem({.width = width, .height = height});

    const auto mainQueue = selvio::MainQueue::shared();
    const auto parameters = std::make_shared<SelvioFacialCaptureParameters>();
    parameters->setCountdownTime(0);
    const auto analyzer = SelvioFacialCaptureAnalyzer::initWithParameters(parameters, platform);
    const auto camera =
        SelvioFacialCaptureCamera::initWithPreset(selvio::kCaptureSessionPreset1280x720, selvio::kPixelFormat32BGRA,
                                                  selvio::CaptureDevicePosition::Front, {0, 0, 1080, 1920}, platform);

    const auto guidance = std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
    guidance->detectionResults = [](const auto& results) {
        std::cerr << SelvioFacialCaptureResults::localizeKeyFrom(results->highestPriorityStatus()).value_or("") << '\n';
    };
    std::optional<std::string> photograph;
    guidance->detectionSuccess = [&](const auto& results) {
        photograph = results->encodedSelectedImage();
        mainQueue->quit();
    };
    analyzer->setDelegate(guidance);
    const auto frames = std::make_shared<SelvioFacialCaptureCameraDelegate>();
    frames->didReceiveSampleBuffer = [analyzer](const auto& frame) { analyzer->analyzeSampleBuffer(frame); };
    camera->setDelegate(frames);
    camera->start();
    analyzer->resume();
    mainQueue->asyncAfter(std::chrono::seconds(parameters->timeout()), [mainQueue] { mainQueue->quit(); });
    mainQueue->run();
    camera->stop();
    camera->shutdown();
    analyzer->stop();

    const auto jpeg = photograph ? selvio::base64::decode(*photograph) : std::nullopt;
    if (!jpeg) {
        std::cerr << "no photograph was taken\n";
        return 1;
    }
    std::cout.write(reinterpret_cast<const char*>(jpeg->data()), static_cast<std::streamsize>(jpeg->size()));
    return std::cout.flush() ? 0 : 1;
}
