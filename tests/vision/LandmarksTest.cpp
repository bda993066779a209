// The layout of a face's points.
#include "platform/linux/vision/LandmarkLayout.h"

#include <gtest/gtest.h>

namespace selvio::test {
namespace {

/// A face whose point i lies at (i, 100 + i) in a box of 100 x 50 at (10, 20) of a view of 400 x 200.
FoundFace numberedFace() {
    FoundFace face{.box = {10, 20, 100, 50}, .points = {}};
    for (std::size_t i = 0; i < face.points.size(); ++i)
        face.points[i] = {static_cast<double>(i), 100.0 + static_cast<double>(i)};
    return face;
}

/// The number of the point, back from the normalized coordinates.
double numberOf(Point p) {
    EXPECT_NEAR(p.y * 100 + 10, p.x * 50 + 20 - 100, 1e-9);
    return p.y * 100 + 10;
}

TEST(LandmarkLayout, PutsThePointsWhereTheChecksReadThem) {
    const FaceObservation newer = observationOf(numberedFace(), {400, 200}, 3);
    EXPECT_EQ(newer.boundingBox, (Rect{0.1, 0.025, 0.25, 0.25}));
    const auto& lips = newer.landmarks->outerLips->normalizedPoints;
    ASSERT_EQ(lips.size(), 14U);
    EXPECT_NEAR(numberOf(lips[13]), 48, 1e-9);
    EXPECT_NEAR(numberOf(lips[7]), 54, 1e-9);

    const FaceObservation older = observationOf(numberedFace(), {400, 200}, 2);
    const auto& olderContour = older.landmarks->faceContour->normalizedPoints;
    const auto& olderLips = older.landmarks->outerLips->normalizedPoints;
    ASSERT_EQ(olderContour.size(), 11U);
    ASSERT_EQ(olderLips.size(), 10U);
    for (const auto& [index, number] : {std::pair{0, 0.0}, {5, 8.0}, {10, 16.0}}) {
        EXPECT_NEAR(numberOf(olderContour[static_cast<std::size_t>(index)]), number, 1e-9);
    }
    EXPECT_NEAR(numberOf(olderLips[9]), 48, 1e-9);
    EXPECT_NEAR(numberOf(olderLips[5]), 54, 1e-9);
}

}  // namespace
}  // namespace selvio::test
