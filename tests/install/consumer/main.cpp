// Runs the README's example with a simulated camera. Usage: consumer PHOTOGRAPH SCRIPT
#include <SelvioFacialCapture/SelvioFacialCapture.h>
#include <SelvioFacialCapture/linux/LinuxPlatform.h>
#include <SelvioFacialCapture/simulated/SimulatedPlatform.h>

#include <iostream>

static_assert(SELVIO_FACIAL_CAPTURE_VERSION >= 30200);

#include "readme_example.h"

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
