// The 68 points that describe a face.
#pragma once

#include <SelvioFacialCapture/imaging/Geometry.h>

#include <array>
#include <cstddef>

namespace selvio {

inline constexpr std::size_t kLandmarkCount = 68;

/// Jaw line 0...16 from left to right, brows 17...26, nose 27...35 (bridge downwards, then its base), eyes 36...47,
/// outer lips 48...59, inner lips 60...67, each from its left end on and round by the top. The unit is the caller's.
using LandmarkPoints = std::array<Point, kLandmarkCount>;

/// In pixels of the full-size view, the origin at its top left corner. The box may reach beyond the view.
struct FoundFace {
    Rect box;
    LandmarkPoints points{};
};

}  // namespace selvio
