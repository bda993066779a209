// Where the face belongs on the screen.
#pragma once

#include <SelvioFacialCapture/imaging/Geometry.h>
#include <SelvioFacialCapture/rules/FaceChecks.h>

namespace selvio {

/// An egg of two half ellipses, in screen points. A face fills it when the ends of its contour, at the ears, touch its
/// sides and the chin its lower end.
struct FaceOval {
    Point middle;  ///< between the ears, where it is widest
    double halfWidth = 0.0;
    double above = 0.0;  ///< height over the middle
    double below = 0.0;  ///< height under the middle
};

/// The oval in the middle of what the face checks accept: a face that fills it is wide enough, not too wide, and
/// centred. Limits that no centred face can keep give the largest oval that keeps the margins. Pure.
[[nodiscard]] FaceOval faceOvalFor(const rules::FaceLimits& limits, Size screen);

}  // namespace selvio
