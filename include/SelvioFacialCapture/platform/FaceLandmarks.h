// Port: finding faces and their landmarks in a frame.
#pragma once

#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/imaging/Geometry.h>
#include <SelvioFacialCapture/imaging/PixelBuffer.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace selvio {

// A face as the checks read it, seen on the portrait screen (as in a mirror), with the indices of the points that they
// read; in brackets those of the older layout (contour of 11, outer lips of 10). The order of all other points is the
// detector's own.
//
//             left of the screen                   right of the screen
//
//      contour 16 (0) ●                                   ● contour 0 (10)       ┌──▶ y
//                     │               nose                │                      │
//                      │        2 ●   4 ●   6 ●          │                       ▼
//                       │                               │                        x
//                        │   13 (9) ●═══════● 7 (5)    │                   detector's axes
//                          \          lips          /
//                             ` ─ ─ ─  ●  ─ ─ ─ ´
//                                contour 8 (5)
//
//   contour  its ends at the height of the eyes, and the chin; the ends' distance is the face's width
//   nose     2 and 6 its sides, 4 the middle of its base: how far 4 lies from each shows how the head is turned
//   lips     their corners
//
// x runs down the screen and y across it, from left to right: for the box in the frame, where it begins at the upper
// left of the screen, and for the points in the box, where (0, 0) is the box's upper left corner and (1, 1) its lower
// right one. A region with another number of points is a line in the log; points that are missing are read as (0, 0).

/// One feature of a face: points normalized to the face's bounding box (0...1 inside it), in the detector's order.
struct FaceLandmarkRegion {
    std::vector<Point> normalizedPoints;
};

/// The features that were found; an absent one was not.
struct FaceLandmarks {
    std::optional<FaceLandmarkRegion> faceContour;  ///< 17 points (or 11 in the older layout)
    std::optional<FaceLandmarkRegion> nose;         ///< 9 points
    std::optional<FaceLandmarkRegion> outerLips;    ///< 14 points (or 10)
};

/// One face. The bounding box is normalized to the frame with the request's EXIF orientation applied, origin at the
/// lower left: x runs down the portrait screen and y across it from left to right.
struct FaceObservation {
    Rect boundingBox;
    std::optional<FaceLandmarks> landmarks;
};

/// A question for one picture.
struct FaceLandmarksRequest {
    std::shared_ptr<const PixelBuffer> pixelBuffer;
    std::uint32_t exifOrientation = 0;  ///< 1...8
    /// 3: contour of 17 points, outer lips of 14; 2: contour of 11, outer lips of 10 are allowed.
    int revision = 3;
    /// The picture belongs to no sequence: smaller faces are worth a search that takes longer than a frame may.
    bool isStillImage = false;
};

/// The answer. What was found counts, even when an error ended the search.
struct FaceLandmarksResult {
    std::vector<FaceObservation> observations;  ///< one a face
    std::optional<Error> error;
};

/// Finds faces in the frames of one sequence and in still images.
class SELVIO_EXPORT SequenceRequestHandler {
public:
    virtual ~SequenceRequestHandler() = default;
    /// Searches the picture on the calling thread. One thread at a time. An error means that the request could not be
    /// performed at all.
    [[nodiscard]] virtual Expected<FaceLandmarksResult> perform(const FaceLandmarksRequest& request) = 0;
};

}  // namespace selvio
