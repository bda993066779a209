// Trained numbers of the smile classifier.
//
// Provenance: logistic regression over six geometric features of dlib's 68 points, trained on one half of 13,165 face
// crops labelled smiling or not and tested on the other half (accuracy 0.87, area under the curve 0.95); on 70
// photographs of people labelled by eye, accuracy 0.96. What it gets wrong is mostly speech with an open mouth. No
// picture is stored here: these nineteen numbers are all that is left of the training data.
#pragma once

#include <array>
#include <cstddef>

namespace selvio::hog {

inline constexpr std::size_t kSmileFeatureCount = 6;
inline constexpr std::array<double, kSmileFeatureCount> kSmileMean{0.903, 0.055, 0.116, 0.329, 0.327, -0.109};
inline constexpr std::array<double, kSmileFeatureCount> kSmileDeviation{0.122, 0.073, 0.103, 0.112, 0.114, 0.027};
inline constexpr std::array<double, kSmileFeatureCount> kSmileWeight{1.40, -0.52, 1.77, -0.19, -1.49, -0.03};
inline constexpr double kSmileBias = -0.78;

}  // namespace selvio::hog
