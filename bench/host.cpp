// A host in C++ that watches the simulated camera and takes no photograph, for bench/python.py.
//
//     bench_host SECONDS       prints how many frames were judged
#include <SelvioFacialCapture/SelvioFacialCapture.h>
#include <SelvioFacialCapture/linux/LinuxPlatform.h>
#include <SelvioFacialCapture/simulated/SimulatedPlatform.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

using namespace selvio;

int main(int argc, char** argv) {
    const std::chrono::duration<double> seconds(argc == 2 ? std::atof(argv[1]) : 0);
    const std::string samples = SELVIO_SAMPLES;
    if (seconds.count() <= 0 || waitForVisionModels()) return 2;
    const auto mainQueue = std::make_shared<MainQueue>();
    Platform platform = makeLinuxPlatform();
    platform.mainQueue = mainQueue;
    const auto picture = platform.imageLoader->loadImage(samples + "/astronaut.jpg");
    const auto geometry = FaceGeometry::load(FaceGeometry::pathBeside(samples + "/astronaut.jpg"));
    const auto script = MotionScript::load(samples + "/scripts/steady.json");
    useSimulatedCamera(platform, SimulatedFrames::make(picture.value(), geometry.value(), script.value()).value());

    const auto parameters = std::make_shared<SelvioFacialCaptureParameters>();
    parameters->setMode(SelvioFacialCaptureModeManual);
    const auto analyzer = SelvioFacialCaptureAnalyzer::initWithParameters(parameters, platform);
    const auto host = std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
    std::size_t judged = 0;
    std::size_t statuses = 0;
    host->detectionResults = [&](const auto& results) {
        ++judged;
        if (const auto& found = results->orderedStatuses()) statuses += found->size();
    };
    host->startCountdown = [] {};
    host->detectionSuccess = [](const auto&) {};
    analyzer->setDelegate(host);

    const Size screen = platform.screen->bounds();
    const auto camera = SelvioFacialCaptureCamera::initWithPreset(kCaptureSessionPreset1280x720, kPixelFormat420v,
                                                                  CaptureDevicePosition::Front,
                                                                  Rect{0, 0, screen.width, screen.height}, platform);
    camera->setAnalyzeRGBVideo(false);
    const auto events = std::make_shared<SelvioFacialCaptureCameraDelegate>();
    events->didReceiveSampleBuffer = [&](const auto& frame) { analyzer->analyzeSampleBuffer(frame); };
    camera->setDelegate(events);
    camera->start();
    analyzer->resume();
    mainQueue->asyncAfter(std::chrono::duration_cast<std::chrono::nanoseconds>(seconds), [&] { mainQueue->quit(); });
    mainQueue->run();
    camera->shutdown();
    analyzer->stop();
    std::printf("%zu frames, %zu statuses\n", judged, statuses);
    return judged == 0 ? 1 : 0;
}
