// Building the capture graph.
#pragma once

#include "camera/CameraState.h"

namespace selvio {

/// Who takes part in a configuration. References are valid for the call.
struct ConfigurationContext {
    const Platform& platform;
    const std::shared_ptr<CameraState>& state;
    const std::shared_ptr<CaptureOutputDelegate>& receiver;  ///< of samples and metadata
    const std::shared_ptr<Queue>& videoOutputQueue;          ///< for the samples
    const std::weak_ptr<const void>& camera;                 ///< expired: nothing is left to configure
};

/// Finds the camera, adds inputs and outputs to the state's session, focuses, orients the outputs and notifies
/// the delegate. On the session queue. Failures are logged; what had been built until then stays, and the delegate is
/// not notified. If the session is taken from the state meanwhile or the camera is destroyed, nothing of the graph
/// stays, and the delegate is not notified either.
void configureSession(const ConfigurationContext& context);

/// Takes the state's inputs and outputs out of the session and forgets the outputs. With the session's monitor held.
void dismantleSession(CaptureSession& session, CameraState& state);

/// Turns every output connection of the session that can be turned the way `cameraOrientation` asks.
void orientOutputs(CaptureSession& session, VideoOrientation cameraOrientation);

}  // namespace selvio
