// Publishes a virtual camera with a moving test pattern: selvio-virtual-camera NAME POSITION FPS
// FORMAT:WIDTHxHEIGHT|FORMAT:any...
#include "VirtualCamera.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
    using namespace selvio::test;
    std::vector<VirtualCameraMode> modes;
    for (int i = 4; i < argc; ++i) {
        char format[8] = {};
        VirtualCameraMode mode;
        const int read = std::sscanf(argv[i], "%7[A-Za-z0-9]:%dx%d", format, &mode.width, &mode.height);
        if (read != 3 && std::strstr(argv[i], ":any") == nullptr) break;
        mode.format = format;
        modes.push_back(mode);
    }
    if (modes.empty()) {
        std::fprintf(stderr, "usage: %s NAME front|back|unknown FPS FORMAT:WIDTHxHEIGHT|FORMAT:any...\n", argv[0]);
        return 2;
    }
    const std::string position = argv[2];
    return publishVirtualCamera(argv[1], position == "unknown" ? "" : position, modes, std::atoi(argv[3]), fillPattern);
}
