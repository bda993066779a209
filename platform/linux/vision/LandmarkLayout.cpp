#include "platform/linux/vision/LandmarkLayout.h"

namespace selvio {
namespace {

Point between(Point p, Point q, double share) {
    return {p.x + share * (q.x - p.x), p.y + share * (q.y - p.y)};
}

/// `count` points evenly along the jaw, from point `first` to point `last`.
std::vector<Point> alongJaw(const LandmarkPoints& points, double first, double last, std::size_t count) {
    std::vector<Point> result;
    for (std::size_t i = 0; i < count; ++i) {
        const double position = first + (last - first) * static_cast<double>(i) / static_cast<double>(count - 1);
        const auto before = static_cast<std::size_t>(position);
        result.push_back(before + 1 < 17
                             ? between(points[before], points[before + 1], position - static_cast<double>(before))
                             : points[before]);
    }
    return result;
}

std::vector<Point> contourOf(const LandmarkPoints& points, bool newerLayout) {
    return newerLayout ? alongJaw(points, 16, 0, 17) : alongJaw(points, 0, 16, 11);
}

/// The point that stands for the middle of the nose: the height of the nose's base, and two thirds of the way from the
/// tip to the base across, because the base alone hardly moves to the side when the head turns.
Point noseMiddleOf(const LandmarkPoints& points) {
    return {(points[30].x + 2.0 * points[33].x) / 3.0, points[33].y};
}

std::vector<Point> noseOf(const LandmarkPoints& p) {
    return {p[27], p[29], p[31], p[32], noseMiddleOf(p), p[34], p[35], p[30], p[28]};
}

std::vector<Point> outerLipsOf(const LandmarkPoints& p, bool newerLayout) {
    if (newerLayout) {
        return {p[49], between(p[49], p[50], 0.5),
                p[50], p[51],
                p[52], between(p[52], p[53], 0.5),
                p[53], p[54],
                p[55], p[56],
                p[57], p[58],
                p[59], p[48]};
    }
    return {p[49], p[50], p[51], p[52], p[53], p[54], p[56], p[57], p[58], p[48]};
}

}  // namespace

FaceObservation observationOf(const FoundFace& face, Size viewSize, int revision) {
    const bool newerLayout = revision >= 3;
    const auto region = [&](std::vector<Point> points) {
        for (Point& p : points) p = {(p.y - face.box.y) / face.box.height, (p.x - face.box.x) / face.box.width};
        return FaceLandmarkRegion{std::move(points)};
    };
    FaceObservation observation;
    observation.boundingBox = {face.box.y / viewSize.height, face.box.x / viewSize.width,
                               face.box.height / viewSize.height, face.box.width / viewSize.width};
    observation.landmarks = FaceLandmarks{.faceContour = region(contourOf(face.points, newerLayout)),
                                          .nose = region(noseOf(face.points)),
                                          .outerLips = region(outerLipsOf(face.points, newerLayout))};
    return observation;
}

}  // namespace selvio
