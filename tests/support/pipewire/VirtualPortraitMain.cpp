// Publishes a virtual front camera in portrait that shows a simulated person: selvio-virtual-portrait NAME PHOTOGRAPH
// SCRIPT
#include <SelvioFacialCapture/linux/Codec.h>
#include <SelvioFacialCapture/simulated/SimulatedFrames.h>

#include <cstdio>
#include <cstring>

#include "VirtualCamera.h"

int main(int argc, char** argv) {
    using namespace selvio;
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s NAME PHOTOGRAPH SCRIPT\n", argv[0]);
        return 2;
    }
    const auto photograph = JpegPngImageLoader().loadImage(argv[2]);
    const auto geometry = FaceGeometry::load(FaceGeometry::pathBeside(argv[2]));
    const auto script = MotionScript::load(argv[3]);
    if (!photograph || !geometry || !script) {
        std::fprintf(stderr, "%s: cannot read the photograph, its geometry or the script\n", argv[0]);
        return 5;
    }
    const auto frames = SimulatedFrames::make(photograph.value(), geometry.value(), script.value()).value();
    const auto layout = PixelBufferLayout::make(720, 1280, kPixelFormat420v, {720, 720}).value();
    const auto draw = [&](std::chrono::nanoseconds time, const test::VirtualCameraMode&, std::uint8_t* out) {
        const auto frame = PixelBuffer::wrap(layout, {out, out + std::size_t{720} * 1280}, {});
        frames->render(time, *frame);
    };
    return test::publishVirtualCamera(argv[1], "front", {{"NV12", 720, 1280}}, 30, draw);
}
