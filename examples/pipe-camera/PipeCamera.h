// A camera that reads raw frames from a pipe: the worked example of docs/porting.md.
#pragma once

#include <SelvioFacialCapture/platform/Capture.h>

#include <memory>

namespace example {

/// What comes through the pipe: upright portrait frames, B, G, R, A, one after the other without gaps.
struct PipeFormat {
    int descriptor = 0;  ///< standard input
    int width = 720;     ///< pixels
    int height = 1280;   ///< pixels
};

/// A capture system with that one camera, and without microphones and codes. The descriptor stays the caller's.
[[nodiscard]] std::shared_ptr<selvio::CaptureSystem> makePipeCaptureSystem(const PipeFormat& format);

}  // namespace example
