// Where a point of the camera image is on the portrait screen.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/imaging/Geometry.h>
#include <SelvioFacialCapture/platform/FaceLandmarks.h>

#include <optional>
#include <vector>

namespace selvio::rules {

/// The image fills the screen with an aspect fill: the adjusters say what is cropped away. Screen sides are in points,
/// preview sides in pixels.
struct SELVIO_EXPORT PreviewGeometry {
    Size resolution;
    double biggerScreenSide = 0.0;
    double smallerScreenSide = 0.0;
    double biggerPreviewSide = 0.0;
    double smallerPreviewSide = 0.0;
    double wAdjuster = 1.0;  ///< share of the image's short side that is on the screen
    double hAdjuster = 1.0;  ///< share of the image's long side that is on the screen
    double xAdjuster = 0.0;  ///< points cropped away at each end of the short side
    double yAdjuster = 0.0;  ///< points cropped away at each end of the long side

    void setScreen(Size size);
    /// Stores the image's size and, unless it is zero, the preview sides and the adjusters of the side that is cropped:
    /// the ratios of the long to the short side, rounded to two decimals, decide which. The other pair of adjusters
    /// keeps its values, as do all when the ratios are equal.
    void setResolution(Size size);
    /// A face's bounding box as a rectangle on the screen. The detector's x runs down the screen, so the axes are
    /// swapped.
    [[nodiscard]] Rect faceRect(const Rect& boundingBox) const;
};

/// A region's points, normalized to a face, in the face's rectangle on the screen, in order; axes swapped. Nothing for
/// an absent region.
[[nodiscard]] SELVIO_EXPORT std::optional<std::vector<Point>> landmarkInAdjustedRect(
    const std::optional<FaceLandmarkRegion>& region, const Rect& rect);

}  // namespace selvio::rules
