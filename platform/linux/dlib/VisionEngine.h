// From a pixel buffer to the faces in it.
#pragma once

#include "FoundFace.h"
#include "GreyView.h"
#include "HogFaceFinder.h"
#include "LandmarkModel.h"

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

namespace selvio::hog {

/// What an engine needs from disk; loaded once and shared.
struct VisionModels {
    std::shared_ptr<const HogFilters> filters;
    std::shared_ptr<const LandmarkModel> landmarks;
};

/// The size in pixels of the view of a buffer.
[[nodiscard]] Size viewSizeOf(const PixelBuffer& buffer, ViewTransform view);

/// Finds faces: in every picture at a small scale (faces from about 31 % of the view's shorter side on), and at a
/// larger one (from 17 %) in single pictures and now and then in a sequence, where a small face that was seen is looked
/// for again at its place until the next such pass. Nothing else is carried from frame to frame, so nothing lags. One
/// thread at a time.
class VisionEngine {
public:
    /// How often the larger scale is used in a sequence: after this many frames or this much time, whichever comes
    /// first.
    static constexpr int kFramesBetweenWidePasses = 14;
    static constexpr std::chrono::nanoseconds kTimeBetweenWidePasses = std::chrono::milliseconds(400);

    explicit VisionEngine(std::shared_ptr<const VisionModels> models);

    /// The faces of a picture that stands alone, the surest first. Empty for a buffer that cannot be read.
    [[nodiscard]] std::vector<FoundFace> findInPicture(const PixelBuffer& buffer, ViewTransform view);
    /// The faces of the next frame of a sequence. `now` is a time that never goes back. A change of size or orientation
    /// starts a new sequence.
    [[nodiscard]] std::vector<FoundFace> findInSequence(const PixelBuffer& buffer, ViewTransform view,
                                                        std::chrono::nanoseconds now);

private:
    /// A square in pixels of the full-size view.
    struct Box {
        double left = 0.0;
        double top = 0.0;
        double side = 0.0;
        double tilt = 0.0;  ///< degrees clockwise, roughly
    };
    struct Sequence {
        ViewTransform view;
        int width = 0;
        int height = 0;
        int framesSinceWidePass = 0;
        std::chrono::nanoseconds lastWidePass{};
        std::vector<Box> small;  ///< what the last wider pass found beyond the usual one, at its newest place
    };

    [[nodiscard]] static bool same(const Box& a, const Box& b);
    /// Makes the grey view of `area` of the buffer, scaled by `scale`.
    [[nodiscard]] bool load(const PixelBuffer& buffer, ViewTransform view, PixelArea area, double scale);
    /// In the view that was loaded last, by score; the filters for turned heads, if wanted, only when the frontal one
    /// finds nothing.
    [[nodiscard]] std::vector<HogFace> search(double frontal, std::optional<double> turned,
                                              int levels = HogFaceFinder::kAllLevels);
    [[nodiscard]] std::vector<Box> inFullView(const std::vector<HogFace>& faces) const;
    [[nodiscard]] std::vector<Box> usualPass(const PixelBuffer& buffer, ViewTransform view);
    /// Only what is not among `known`.
    [[nodiscard]] std::vector<Box> widePass(const PixelBuffer& buffer, ViewTransform view,
                                            const std::vector<Box>& known);
    [[nodiscard]] std::optional<Box> lookAgain(const PixelBuffer& buffer, ViewTransform view, const Box& before);
    [[nodiscard]] std::vector<FoundFace> withLandmarks(const PixelBuffer& buffer, ViewTransform view,
                                                       std::vector<Box> boxes);
    [[nodiscard]] std::optional<FoundFace> landmarksIn(const PixelBuffer& buffer, ViewTransform view, const Box& box);

    const std::shared_ptr<const VisionModels> models_;
    HogFaceFinder finder_;
    GreyViewMaker viewMaker_;
    GreyImage grey_;
    // How the grey view lies in the full-size view.
    Point loadedOrigin_;
    Size loadedPixel_;
    std::optional<Sequence> sequence_;
};

}  // namespace selvio::hog
