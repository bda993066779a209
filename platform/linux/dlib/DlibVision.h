// Faces, landmarks and smiles by gradient histograms and a 68-point shape predictor.
//
// The predictor's model file is not part of this component: Debian's package libdlib-data installs it. The photographs
// it was trained on exclude commercial use; a host that needs another model or another detector brings its own adapters
// for the two ports.
#pragma once

#include <SelvioFacialCapture/base/Clock.h>
#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/platform/FaceDetector.h>
#include <SelvioFacialCapture/platform/FaceLandmarks.h>

#include <memory>
#include <optional>
#include <string>

namespace selvio::hog {

/// Where Debian's package libdlib-data puts the model.
inline constexpr const char* kDefaultLandmarkModelPath = "/usr/share/dlib/shape_predictor_68_face_landmarks.dat";

struct VisionOptions {
    /// The 68-point predictor in dlib's format.
    std::string landmarkModelPath = kDefaultLandmarkModelPath;
    /// Tells when the next search for small faces in the background is due; null means the system's clock.
    std::shared_ptr<const Clock> clock;
};

/// Starts loading the models on a thread of its own, unless they are loaded or being loaded; returns at once. Each
/// model file is loaded once a process. Any thread.
void preloadVisionModels(const VisionOptions& options = {});

/// Waits until the models are loaded. An error names the file and the package that installs it. Any thread.
[[nodiscard]] std::optional<Error> waitForVisionModels(const VisionOptions& options = {});

/// A request handler for the frames of one sequence. Starts loading the models as `preloadVisionModels` does and
/// returns at once; the first request waits for them. Performing fails, without calling a completion handler, when the
/// models cannot be loaded, when the buffer is null or empty or of an unknown format, and when the orientation is not
/// in 1...8. Never null. Any thread; the handler itself serves one thread at a time.
///
/// An observation's box is a square around brows, chin and ears that may reach beyond the frame, its points may lie
/// outside the box. A tilted face is found up to about 40 degrees. The same frame gives the same points, whatever came
/// before it; only whether a small second face is seen depends on the last half second.
[[nodiscard]] std::shared_ptr<SequenceRequestHandler> makeSequenceRequestHandler(const VisionOptions& options = {});

/// A detector of faces and smiles in single pictures. Loads the models as above; without them it finds nothing. A
/// picture over a pixel buffer that a handler of this process has just examined is not searched again. Never null. Any
/// thread, also several at once (one picture is examined after another).
[[nodiscard]] std::shared_ptr<FaceDetector> makeFaceDetector(const VisionOptions& options = {});

}  // namespace selvio::hog
