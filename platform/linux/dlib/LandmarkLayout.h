// From the model's 68 points to the regions that the face checks read.
#pragma once

#include "FoundFace.h"

#include <SelvioFacialCapture/platform/FaceLandmarks.h>

namespace selvio::hog {

/// The face in detector coordinates (x runs down the view, y across it) with points relative to its box.
/// Revision 3 and above: contour of 17, outer lips of 14. Below: contour of 11, outer lips of 10. The nose has 9 points
/// in both. Left and right are those of the view: the contour's end at the left is index 16 (older layout: 0), the left
/// mouth corner index 13 (9), the right one 7 (5); nose points 2...6 run along the nose's base from left to right.
[[nodiscard]] FaceObservation observationOf(const FoundFace& face, Size viewSize, int revision);

/// The point that stands for the middle of the nose: the height of the nose's base, and two thirds of the way from the
/// tip to the base across, because the base alone hardly moves to the side when the head turns.
[[nodiscard]] Point noseMiddleOf(const LandmarkPoints& points);

}  // namespace selvio::hog
