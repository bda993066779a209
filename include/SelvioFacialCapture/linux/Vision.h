// Faces, landmarks and smiles by two neural networks: one finds faces, the other the mesh of 468 points on each.
//
// The model files are not part of this component: scripts/install-deps.sh brings them. A host that needs other models
// or another detector brings its own adapters for the two ports.
#pragma once

#include <SelvioFacialCapture/base/Clock.h>
#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/platform/FaceDetector.h>
#include <SelvioFacialCapture/platform/FaceLandmarks.h>

#include <memory>
#include <optional>
#include <string>

namespace selvio {

/// Where a model file lies that was installed with the adapters' library: in share/SelvioFacialCapture/models beside or
/// above the library's directory. Any thread.
[[nodiscard]] SELVIO_EXPORT std::string defaultVisionModelPath(const std::string& fileName);

struct VisionOptions {
    /// Finds faces: a .tflite network of 128 x 128 pixels and 896 outputs.
    std::string detectionModelPath = defaultVisionModelPath("face_detection_short_range.tflite");
    /// Finds the points of a face: a .tflite network of 192 x 192 pixels and 468 points.
    std::string meshModelPath = defaultVisionModelPath("face_landmark.tflite");
    /// Looks at each face a second time, in the square that the first look gives: stiller points for half as much time
    /// again.
    bool refineLandmarks = false;
    /// Decides when the next search for small faces in the background is due; null means the system's clock.
    std::shared_ptr<const Clock> clock{};
};

/// Starts loading the models on a thread of its own, unless they are loaded or being loaded; returns at once. Each
/// model file is loaded once a process. Any thread.
SELVIO_EXPORT void preloadVisionModels(const VisionOptions& options = {});

/// Waits until the models are loaded. An error names the file and the script that installs it. Any thread.
[[nodiscard]] SELVIO_EXPORT std::optional<Error> waitForVisionModels(const VisionOptions& options = {});

/// A request handler for the frames of one sequence, and for still images. Starts loading the models as
/// `preloadVisionModels` does and returns at once; the first request waits for them. Performing fails when the models
/// cannot be loaded, when the buffer is null or empty or of an unknown format, and when the orientation is not
/// in 1...8. Never null. Any thread; the handler itself serves one thread at a time.
///
/// An observation's box is an upright square around brows, chin and jaw that may reach beyond the frame. A tilted face
/// is found up to 90 degrees. The same frame gives the same points, whatever came before it; only whether a small face
/// is seen depends on the last half second. A sequence is searched for faces from
/// 15 % of its width on, a still image from 6 %.
[[nodiscard]] SELVIO_EXPORT std::shared_ptr<SequenceRequestHandler> makeSequenceRequestHandler(
    const VisionOptions& options = {});

/// A detector of faces and smiles in single pictures. Loads the models as above; without them it finds nothing. A
/// picture over a pixel buffer that a handler of this process has just examined is not searched again. Never null. Any
/// thread, also several at once; none waits for another.
[[nodiscard]] SELVIO_EXPORT std::shared_ptr<FaceDetector> makeFaceDetector(const VisionOptions& options = {});

}  // namespace selvio
