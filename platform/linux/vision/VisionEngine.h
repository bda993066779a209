// From a pixel buffer to the faces in it.
#pragma once

#include "platform/linux/vision/FaceDetection.h"
#include "platform/linux/vision/FaceMesh.h"
#include "platform/linux/vision/Landmarks.h"
#include "platform/linux/vision/PictureSampler.h"

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

namespace selvio {

/// The two networks; loaded once and shared.
struct VisionModels {
    std::shared_ptr<const FaceDetection> detection;
    std::shared_ptr<const FaceMesh> mesh;
};

/// Finds faces: in every picture at a glance (from about 27 % of the view's shorter side on), and in overlapping
/// squares that show smaller ones: in single pictures down to 6 %, in a sequence now and then down to 15 %. A small
/// face that such a pass found is looked for again at its place until the next one. Nothing else is carried from frame
/// to frame, so nothing lags. One thread at a time.
class VisionEngine {
public:
    /// How often smaller faces are sought in a sequence: after this many frames or this much time, whichever comes
    /// first.
    static constexpr int kFramesBetweenWidePasses = 14;
    static constexpr std::chrono::nanoseconds kTimeBetweenWidePasses = std::chrono::milliseconds(400);

    /// `refine`: look at each face a second time, in the square that the first look gives.
    VisionEngine(std::shared_ptr<const VisionModels> models, bool refine);

    /// The faces of a picture that stands alone, those seen at a glance first. The buffer must be of a known format.
    [[nodiscard]] std::vector<FoundFace> findInPicture(const PixelBuffer& buffer, ViewTransform view);
    /// The faces of the next frame of a sequence. `now` is a time that never goes back. A change of size or orientation
    /// starts a new sequence.
    [[nodiscard]] std::vector<FoundFace> findInSequence(const PixelBuffer& buffer, ViewTransform view,
                                                        std::chrono::nanoseconds now);

private:
    struct Sequence {
        ViewTransform view;
        int width = 0;
        int height = 0;
        int framesSinceWidePass = 0;
        std::chrono::nanoseconds lastWidePass{};
        std::vector<FaceCandidate> small;  ///< what the last wider pass found beyond the glance, at its newest place
    };

    /// The faces that the whole picture shows, or else those of heads that lie on their side.
    [[nodiscard]] std::vector<FoundFace> findAtAGlance();
    /// What squares show, by score; their side is a share of the picture's width.
    [[nodiscard]] std::vector<FaceCandidate> searchSquares(double share, double leastScore);
    [[nodiscard]] std::optional<FaceCandidate> lookAgain(const FaceCandidate& before);
    /// Adds the faces among the candidates that are not there yet; takes the other candidates out.
    void addFaces(std::vector<FaceCandidate>& candidates, std::vector<FoundFace>& faces);

    const std::shared_ptr<const VisionModels> models_;
    const bool refine_;
    PictureSampler picture_;
    std::optional<Sequence> sequence_;
};

}  // namespace selvio
