// Where faces lie, roughly: one look of the detection network at a square.
#pragma once

#include "platform/linux/vision/Network.h"
#include "platform/linux/vision/PictureSampler.h"

#include <SelvioFacialCapture/imaging/Geometry.h>

#include <memory>
#include <vector>

namespace selvio {

/// In pixels of the full-size view.
struct FaceCandidate {
    double score = 0.0;  ///< 0...1
    Rect box;            ///< brows to chin
    Point leftEye;       ///< left and right as seen in the view
    Point rightEye;
};

/// Any thread.
class FaceDetection {
public:
    /// The error says in what the model differs from the one that is wanted.
    static Expected<std::shared_ptr<const FaceDetection>> make(Model model);

    /// Faces whose box is 15 to 90 % of the square as wide, the surest first, one candidate a face. The square stands
    /// upright. Throws std::runtime_error when memory is short.
    [[nodiscard]] std::vector<FaceCandidate> find(PictureSampler& picture, const ViewSquare& square) const;

private:
    explicit FaceDetection(std::shared_ptr<const Network> network);

    const std::shared_ptr<const Network> network_;
    const std::vector<Point> anchors_;  // in shares of the square
};

/// The area that two boxes share.
[[nodiscard]] double sharedArea(const Rect& a, const Rect& b);

}  // namespace selvio
