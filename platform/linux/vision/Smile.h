// Whether a face smiles, judged from its points alone.
#pragma once

#include "platform/linux/vision/Landmarks.h"

#include <array>
#include <cstddef>
#include <optional>

namespace selvio {

inline constexpr std::size_t kSmileFeatureCount = 6;

/// Six lengths along and across the line through the eyes' centres, in units of the distance between them, down counted
/// as positive: mouth width; middle of the lips below the corners; opening of the inner lips; height of the outer lips;
/// corners below the nose's base; upper lids below the lower lids (negative while the eyes are open). The points' unit
/// must be the same in both directions. Nothing when the eyes coincide or a point is not finite.
[[nodiscard]] std::optional<std::array<double, kSmileFeatureCount>> smileFeaturesOf(const LandmarkPoints& points);

/// The log-odds of a smile: smiling above 0.
[[nodiscard]] double smileScore(const std::array<double, kSmileFeatureCount>& features);

/// A face that cannot be judged does not smile.
[[nodiscard]] bool isSmiling(const LandmarkPoints& points);

}  // namespace selvio
