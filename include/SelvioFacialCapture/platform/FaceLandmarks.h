// Port: finding faces and their landmarks in a frame.
#pragma once

#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/imaging/Geometry.h>
#include <SelvioFacialCapture/imaging/PixelBuffer.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace selvio {

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

/// A question for one frame; made anew for each.
class SELVIO_EXPORT FaceLandmarksRequest {
public:
    /// Called once by the handler, on the thread that performs the request, with the request and the error, if any.
    using CompletionHandler =
        std::function<void(const FaceLandmarksRequest& request, const std::optional<Error>& error)>;

    explicit FaceLandmarksRequest(CompletionHandler completion) : completion_(std::move(completion)) {}

    void setRevision(int revision) { revision_ = revision; }
    /// 3: contour of 17 points, outer lips of 14; 2: contour of 11, outer lips of 10 are allowed.
    [[nodiscard]] int revision() const { return revision_; }
    /// One observation a face; absent until the request has been performed, or when it failed.
    [[nodiscard]] const std::optional<std::vector<FaceObservation>>& results() const { return results_; }

    /// For the handler: stores the answer and calls the completion handler.
    void complete(std::optional<std::vector<FaceObservation>> results,
                  const std::optional<Error>& error = std::nullopt) {
        results_ = std::move(results);
        if (completion_) completion_(*this, error);
    }

private:
    CompletionHandler completion_;
    int revision_ = 3;
    std::optional<std::vector<FaceObservation>> results_;
};

/// Performs requests on the frames of one sequence.
class SELVIO_EXPORT SequenceRequestHandler {
public:
    virtual ~SequenceRequestHandler() = default;
    /// Performs the requests on the calling thread and calls each one's completion handler before it returns. One
    /// thread at a time. `exifOrientation` is 1...8. An error means that the requests could not be performed at all.
    virtual std::optional<Error> performRequests(const std::vector<std::shared_ptr<FaceLandmarksRequest>>& requests,
                                                 const std::shared_ptr<const PixelBuffer>& pixelBuffer,
                                                 std::uint32_t exifOrientation) = 0;
};

}  // namespace selvio
