// A camera that a program publishes through PipeWire, so that discovery and capture can be tried without hardware or
// kernel modules.
#pragma once

#include <SelvioFacialCapture/imaging/PixelBuffer.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace selvio::test {

struct VirtualCameraMode {
    std::string format;  ///< "BGRx", "BGRA" or "NV12"
    int width =
        0;  ///< a multiple of 4; 0: any size from 320x240 to 1280x720, at 15 frames a second or at the camera's rate
    int height = 0;  ///< even
};

/// Draws the frame of this time (since the camera was opened) into `out`, tightly packed: rows of 4 x width bytes, or
/// for NV12 the Y plane of width x height bytes and then the Cb and Cr plane.
using FrameFiller =
    std::function<void(std::chrono::nanoseconds time, const VirtualCameraMode& mode, std::uint8_t* out)>;

/// A grey picture with a white bar that crosses it once a second.
void fillPattern(std::chrono::nanoseconds time, const VirtualCameraMode& mode, std::uint8_t* out);

/// Publishes the camera until the process is told to end (SIGINT, SIGTERM) and returns the exit code. `position` is
/// "front", "back" or empty.
int publishVirtualCamera(const std::string& name, const std::string& position,
                         const std::vector<VirtualCameraMode>& modes, int framesPerSecond, const FrameFiller& fill);

}  // namespace selvio::test
