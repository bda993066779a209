// From a pixel buffer to the faces in it.
#pragma once

#include "FaceDetection.h"
#include "FaceMesh.h"
#include "Landmarks.h"
#include "PictureSampler.h"

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
/// squares that show smaller ones: in single pictures and where a sequence begins down to 6 %, in a sequence now and
/// then down to 15 %. A small face that such a pass found is looked for again at its place until the next one. Nothing
/// else is carried from frame to frame, so nothing lags. One thread at a time.
class VisionEngine {
public:
    /// How often smaller faces are sought in a sequence: after this many frames or this much time, whichever comes
    /// first.
    static constexpr int kFramesBetweenWidePasses = 14;
    static constexpr std::chrono::nanoseconds kTimeBetweenWidePasses = std::chrono::milliseconds(400);

    /// `refine`: look at each face a second time, in the square that the first look gives.
    VisionEngine(std::shared_ptr<const VisionModels> models, bool refine);

    /// The faces of a picture that stands alone, the largest first. The buffer must be of a known format.
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

    [[nodiscard]] std::vector<FaceCandidate> glance();
    /// Adds what squares of this side show and is not among `known`.
    void searchSquares(double side, double leastScore, std::vector<FaceCandidate>& known);
    /// Adds what the squares for single pictures show.
    void searchForTheSmallest(std::vector<FaceCandidate>& known);
    [[nodiscard]] double shorterSide() const;
    [[nodiscard]] std::optional<FaceCandidate> lookAgain(const FaceCandidate& before);
    [[nodiscard]] std::vector<FoundFace> withLandmarks(const std::vector<FaceCandidate>& candidates);

    const std::shared_ptr<const VisionModels> models_;
    const bool refine_;
    PictureSampler picture_;
    std::optional<Sequence> sequence_;
};

}  // namespace selvio
