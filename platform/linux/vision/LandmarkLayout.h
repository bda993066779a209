// From the model's 68 points to the regions that the face checks read.
#pragma once

#include "platform/linux/vision/Landmarks.h"

#include <SelvioFacialCapture/platform/FaceLandmarks.h>

namespace selvio {

/// The face in detector coordinates (x runs down the view, y across it) with points relative to its box.
/// Revision 3 and above: contour of 17, outer lips of 14. Below: contour of 11, outer lips of 10. The nose has 9 points
/// in both. Left and right are those of the view: the contour's end at the left is index 16 (older layout: 0), the left
/// mouth corner index 13 (9), the right one 7 (5); nose points 2...6 run along the nose's base from left to right.
[[nodiscard]] FaceObservation observationOf(const FoundFace& face, Size viewSize, int revision);

}  // namespace selvio
