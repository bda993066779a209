// Publishes a virtual camera with a moving test pattern: selvio-virtual-camera NAME POSITION FPS FORMAT:WIDTHxHEIGHT...
#include "VirtualCamera.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    using namespace selvio::test;
    std::vector<VirtualCameraMode> modes;
    for (int i = 4; i < argc; ++i) {
        char format[8] = {};
        VirtualCameraMode mode;
        if (std::sscanf(argv[i], "%7[A-Za-z0-9]:%dx%d", format, &mode.width, &mode.height) != 3) break;
        mode.format = format;
        modes.push_back(mode);
    }
    if (modes.empty()) {
        std::fprintf(stderr, "usage: %s NAME front|back|unknown FPS FORMAT:WIDTHxHEIGHT...\n", argv[0]);
        return 2;
    }
    const std::string position = argv[2];
    return publishVirtualCamera(argv[1], position == "unknown" ? "" : position, modes, std::atoi(argv[3]), fillPattern);
}
