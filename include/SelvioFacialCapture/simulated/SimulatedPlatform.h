// Puts the simulated services into a platform.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/platform/Platform.h>
#include <SelvioFacialCapture/simulated/SimulatedCaptureSystem.h>

namespace selvio {

/// Makes the scene and its capture system on the platform's clock and sets `captureSystem`, `makeView`,
/// `makeMotionManager` and, if the script states when the person smiles, `makeFaceDetector`. Everything else, asset
/// writers and files included, stays as it is. Returns the capture system, through which the host sets faults and
/// permissions. A platform without a clock gets the system's. Null frames are logged, leave the platform as it is and
/// return null.
SELVIO_EXPORT std::shared_ptr<SimulatedCaptureSystem> useSimulatedCamera(Platform& platform,
                                                                         std::shared_ptr<const SimulatedFrames> frames,
                                                                         SimulatedCaptureOptions options = {});

}  // namespace selvio
