// What is wrong with a face: ratios measured on its landmarks, compared with limits made of the capture's parameters.
// Free of state; any thread. A host that judges pictures without a capture calls `judgePicture`.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>
#include <SelvioFacialCapture/SelvioFacialCaptureStatus.h>
#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/imaging/Geometry.h>
#include <SelvioFacialCapture/platform/FaceLandmarks.h>
#include <SelvioFacialCapture/rules/PreviewGeometry.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace selvio::rules {

/// The strictness of the checks, as the capture's parameters hold it.
struct FaceLimits {
    /// 0...1000, 500 neutral.
    std::int64_t roll = 500;
    std::int64_t pitch = 500;
    std::int64_t yaw = 500;
    /// Thousandths of the screen's width.
    std::int64_t minFill = 550;
    std::int64_t maxFill = 725;
};

[[nodiscard]] SELVIO_EXPORT FaceLimits limitsOf(const SelvioFacialCaptureParameters& parameters);

/// A face's landmarks in screen points; absent or short lists read as points at zero. The contour has 17 points (ends
/// at 16 and 0, chin at 8) or else is read in the layout of 11 (0, 10, 5); the outer lips have 14 (corners at 13 and 7)
/// or else are read in the layout of 10 (9, 5).
struct FacePoints {
    std::optional<std::vector<Point>> contour;
    std::optional<std::vector<Point>> nose;
    std::optional<std::vector<Point>> outerLips;
};

struct FaceChecksInput {
    FacePoints points;
    FaceLimits limits;
    double biggerScreenSide = 0.0;   ///< points
    double smallerScreenSide = 0.0;  ///< points
    bool shouldHoldStill = false;    ///< the device is moving
};

/// What was measured, each value beside its limits. Values may be infinite or not a number when points coincide; such a
/// number breaks no limit unless it is really beyond it.
struct FaceMeasures {
    double rollRatio = 0.0;  ///< the lower contour end's y over the upper one's
    double rollLimit = 0.0;
    double yawRatio = 0.0;  ///< the longer of the nose sides' distances from the nose middle over the shorter
    double yawLimit = 0.0;
    double pitchRatio = 0.0;  ///< height of chin below the contour end over height of chin below the nose middle
    double pitchLow = 0.0;
    double pitchHigh = 0.0;
    double horizontalFill = 0.0;  ///< the face's width over the screen's; tall screens count for 1.218 of their width
    double minFill = 0.0;
    double maxFill = 0.0;
    double verticalRatio = 0.0;  ///< the longer of the contour end's distances from the screen's ends over the shorter
    double verticalLimit = 0.0;
    double horizontalMargin = 0.0;  ///< the narrower of the margins beside the face over the screen's width
    double marginLimit = 0.0;
};

struct FaceChecksResult {
    FaceMeasures measures;
    Point noseMiddle;
    Point lipLeft;
    Point lipRight;
    /// In ascending order. Vertical and horizontal centring each add "not centred", so that it may stand twice; a
    /// rolled head hides the yaw status.
    std::vector<SelvioFacialCaptureStatus> statuses;
};

[[nodiscard]] SELVIO_EXPORT FaceChecksResult checkFace(const FaceChecksInput& input);

/// The one face of a frame, on the screen.
struct FaceOnScreen {
    Rect rect;  ///< screen points
    FacePoints points;
    FaceChecksResult checked;
};

struct FacesJudgement {
    std::size_t count = 0;             ///< of the faces
    std::optional<FaceOnScreen> face;  ///< if there is exactly one
    /// No face and several faces are a status; else those of the face, in ascending order. None: a good face.
    std::vector<SelvioFacialCaptureStatus> statuses;
};

/// Judges what was found in a frame that fills the screen as `geometry` says.
[[nodiscard]] SELVIO_EXPORT FacesJudgement judgeFaces(const std::vector<FaceObservation>& faces,
                                                      const PreviewGeometry& geometry, const FaceLimits& limits,
                                                      bool shouldHoldStill);

/// Judges a still image, upright as people see it, as if the whole of it filled the screen, in pixels. A good face has
/// status 14. On the calling thread, which the search takes some tens of milliseconds; fails if the search does.
[[nodiscard]] SELVIO_EXPORT Expected<FacesJudgement> judgePicture(const std::shared_ptr<const PixelBuffer>& picture,
                                                                  SequenceRequestHandler& handler,
                                                                  const FaceLimits& limits);

}  // namespace selvio::rules
