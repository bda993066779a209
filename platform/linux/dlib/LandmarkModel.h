// The 68-point face shape predictor: a cascade of regression trees over pixel differences, evaluated in sub-pixel
// precision.
#pragma once

#include "GreyView.h"

#include <SelvioFacialCapture/base/Error.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace selvio::hog {

inline constexpr std::size_t kLandmarkCount = 68;

/// The 68 points in the order of the model; the unit is the caller's.
using LandmarkPoints = std::array<Point, kLandmarkCount>;

/// Maps the unit square of the model's face box into a picture: scaled, turned and moved, never sheared.
struct FaceFrame {
    double a = 1.0;  ///< box side in pixels times the cosine of the turn
    double b = 0.0;  ///< box side in pixels times the sine of the turn (positive: clockwise on the screen)
    double x = 0.0;  ///< where the box's top left corner lies
    double y = 0.0;

    /// An upright square, turned about its middle by `tilt` radians clockwise.
    static FaceFrame around(Point middle, double side, double tilt);

    [[nodiscard]] Point apply(Point p) const { return {a * p.x - b * p.y + x, b * p.x + a * p.y + y}; }
    /// First `inner`, then this.
    [[nodiscard]] FaceFrame after(const FaceFrame& inner) const {
        const Point origin = apply({inner.x, inner.y});
        return {a * inner.a - b * inner.b, b * inner.a + a * inner.b, origin.x, origin.y};
    }
};

/// Immutable once loaded; any number of threads may ask at once.
class LandmarkModel {
public:
    /// Reads a predictor in dlib's format (`shape_predictor_68_face_landmarks.dat`). The error names the file and what
    /// is wrong with it.
    static Expected<std::shared_ptr<const LandmarkModel>> load(const std::string& path);

    /// The points of the face whose box is `frame`, in pixels of `image` (the centre of the first pixel is 0, 0); with
    /// several boxes the mean of what each gives, at less than the price of asking for each. Fewer stages of the
    /// cascade cost less and give rougher points.
    [[nodiscard]] LandmarkPoints predict(const GreyImage& image, std::span<const FaceFrame> frames,
                                         std::size_t stages = kAllStages) const;
    [[nodiscard]] LandmarkPoints predict(const GreyImage& image, const FaceFrame& frame,
                                         std::size_t stages = kAllStages) const {
        return predict(image, std::span(&frame, 1), stages);
    }
    static constexpr std::size_t kAllStages = static_cast<std::size_t>(-1);

    /// The box that the model would have expected around a face with these points: what is left when the chance of the
    /// detector's box is taken out.
    [[nodiscard]] FaceFrame frameOf(const LandmarkPoints& points) const;

private:
    static constexpr std::size_t kValues = kLandmarkCount * 2;
    using Shape = std::array<float, kValues>;

    struct Split {
        std::uint16_t first = 0;
        std::uint16_t second = 0;
        float threshold = 0.0F;
    };
    /// One pixel to look at, relative to a point of the mean shape.
    struct Probe {
        std::uint16_t anchor = 0;
        float dx = 0.0F;
        float dy = 0.0F;
    };
    struct Stage {
        std::vector<Split> splits;         // trees one behind the other, each `splitsPerTree_` long
        std::vector<std::int16_t> leaves;  // trees one behind the other, kValues a leaf, in units of leafScale
        float leafScale = 0.0F;
        std::vector<Probe> probes;
        std::size_t trees = 0;
    };
    class Reader;
    struct Run;

    LandmarkModel() = default;
    static Point pointOf(const Shape& shape, std::size_t i) { return {shape[2 * i], shape[2 * i + 1]}; }
    /// Looks at the stage's probes and follows each tree's path.
    void followPaths(const GreyImage& image, const Stage& stage, Run& run) const;

    Shape meanShape_{};
    std::size_t splitsPerTree_ = 0;
    std::vector<Stage> stages_;
};

}  // namespace selvio::hog
