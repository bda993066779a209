#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/simulated/SimulatedPlatform.h>

#include "platform/simulated/SimulatedFaceDetector.h"
#include "platform/simulated/SimulatedMotionManager.h"
#include "platform/simulated/SimulatedView.h"

namespace selvio {

std::shared_ptr<SimulatedCaptureSystem> useSimulatedCamera(Platform& platform,
                                                           std::shared_ptr<const SimulatedFrames> frames,
                                                           SimulatedCaptureOptions options) {
    if (frames == nullptr) {
        log("The simulated camera has no frames to show");
        return nullptr;
    }
    if (platform.clock == nullptr) platform.clock = std::make_shared<SystemClock>();
    auto scene = std::make_shared<SimulatedScene>(std::move(frames), platform.clock);
    auto system = std::make_shared<SimulatedCaptureSystem>(scene, std::move(options));
    platform.captureSystem = system;
    platform.makeView = [] { return std::make_shared<SimulatedView>(); };
    platform.makeMotionManager = [scene] { return std::make_shared<SimulatedMotionManager>(scene); };
    if (scene->frames().script().tellsSmile()) {
        platform.makeFaceDetector = [scene] { return std::make_shared<SimulatedFaceDetector>(scene); };
    }
    return system;
}

}  // namespace selvio
