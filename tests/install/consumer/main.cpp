// The example of the README, run with a simulated camera. Usage: consumer PHOTOGRAPH SCRIPT
#include <SelvioFacialCapture/SelvioFacialCapture.h>
#include <SelvioFacialCapture/SelvioFacialCaptureCamera.h>
#include <SelvioFacialCapture/linux/LinuxPlatform.h>
#include <SelvioFacialCapture/simulated/SimulatedPlatform.h>

#include <iostream>

static_assert(SELVIO_FACIAL_CAPTURE_VERSION >= 30200);

int capture(const selvio::Platform& platform) {
    const auto mainQueue = selvio::MainQueue::shared();
    const auto parameters = std::make_shared<SelvioFacialCaptureParameters>();
    const auto analyzer = SelvioFacialCaptureAnalyzer::initWithParameters(parameters, platform);
    const auto camera =
        SelvioFacialCaptureCamera::initWithPreset(selvio::kCaptureSessionPreset1280x720, selvio::kPixelFormat32BGRA,
                                                  selvio::CaptureDevicePosition::Front, {0, 0, 1080, 1920}, platform);

    const auto guidance = std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
    const auto countdowns = std::make_shared<int>(0);  // a countdown that was broken off is not the newest any more
    guidance->detectionResults = [countdowns](const auto& results) {
        const auto status = results->highestPriorityStatus();
        if (status != SelvioFacialCaptureStatusCountdown) ++*countdowns;
        std::cout << SelvioFacialCaptureResults::localizeKeyFrom(status).value_or("") << '\n';
    };
    guidance->startCountdown = [=] {
        const auto select = [countdowns, mine = ++*countdowns, held = std::weak_ptr(analyzer)] {
            const auto analyzer = held.lock();  // the block may outlive the capture
            if (analyzer && mine == *countdowns) analyzer->selectFrame();
        };
        mainQueue->asyncAfter(std::chrono::seconds(parameters->countdownTime()), select);
    };
    bool captured = false;
    guidance->detectionSuccess = [&](const auto& results) {
        captured = results->encodedSelectedImage().has_value();  // base64 of a JPEG that carries the record
        std::cout << results->obixDataString().value_or("") << '\n';
        mainQueue->quit();
    };
    analyzer->setDelegate(guidance);

    const auto frames = std::make_shared<SelvioFacialCaptureCameraDelegate>();
    frames->didReceiveSampleBuffer = [analyzer](const auto& frame) { analyzer->analyzeSampleBuffer(frame); };
    camera->setDelegate(frames);

    camera->start();
    analyzer->resume();
    mainQueue->run();  // or let your own loop call drain(): see setWakeUpHook()
    camera->stop();
    camera->shutdown();
    analyzer->stop();
    return captured ? 0 : 1;
}

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    auto platform = selvio::makeLinuxPlatform();
    const auto photograph = platform.imageLoader->loadImage(argv[1]);
    const auto geometry = selvio::FaceGeometry::load(selvio::FaceGeometry::pathBeside(argv[1]));
    const auto script = selvio::MotionScript::load(argv[2]);
    if (!photograph || !geometry || !script) return 2;
    const auto frames = selvio::SimulatedFrames::make(photograph.value(), geometry.value(), script.value());
    if (!frames) return 2;
    selvio::useSimulatedCamera(platform, frames.value());
    return capture(platform);
}
