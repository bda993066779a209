// What is made of a face's points: their layout, the smile, and the ways a picture is shown.
#include "platform/linux/vision/LandmarkLayout.h"
#include "platform/linux/vision/Smile.h"
#include "platform/linux/vision/ViewTransform.h"

#include <gtest/gtest.h>

namespace selvio::test {
namespace {

TEST(LandmarkLayout, PutsThePointsWhereTheChecksReadThem) {
    // Point i lies at (i, 100 + i) in a box of 100 x 50 at (10, 20) of a view of 400 x 200.
    FoundFace face{.box = {10, 20, 100, 50}, .points = {}};
    for (std::size_t i = 0; i < face.points.size(); ++i)
        face.points[i] = {static_cast<double>(i), 100.0 + static_cast<double>(i)};
    const auto expectNumber = [](const FaceLandmarkRegion& region, std::size_t size, std::size_t index, int number) {
        ASSERT_EQ(region.normalizedPoints.size(), size);
        EXPECT_NEAR(region.normalizedPoints[index].y * 100 + 10, number, 1e-9);
        EXPECT_NEAR(region.normalizedPoints[index].x * 50 + 20, 100 + number, 1e-9);
    };
    const FaceObservation newer = observationOf(face, {400, 200}, 3);
    EXPECT_EQ(newer.boundingBox, (Rect{0.1, 0.025, 0.25, 0.25}));
    expectNumber(*newer.landmarks->outerLips, 14, 13, 48);
    expectNumber(*newer.landmarks->outerLips, 14, 7, 54);
    const FaceObservation older = observationOf(face, {400, 200}, 2);
    expectNumber(*older.landmarks->outerLips, 10, 9, 48);
    expectNumber(*older.landmarks->outerLips, 10, 5, 54);
    expectNumber(*older.landmarks->faceContour, 11, 0, 0);
    expectNumber(*older.landmarks->faceContour, 11, 5, 8);
    expectNumber(*older.landmarks->faceContour, 11, 10, 16);
}

/// A schematic face, eyes 100 apart and level, the nose's base 60 below them.
LandmarkPoints schematicFace(double mouthWidth, double cornersBelowNose, double lipsBelowCorners, double innerOpening) {
    LandmarkPoints p{};
    const Point eye[] = {{-15, 0}, {-5, -5}, {5, -5}, {15, 0}, {5, 5}, {-5, 5}};
    for (std::size_t i = 0; i < 12; ++i) p[36 + i] = {eye[i % 6].x + (i < 6 ? 0 : 100), eye[i % 6].y};
    p[33] = {50, 60};
    const double corners = 60 + cornersBelowNose;
    const double middle = corners + lipsBelowCorners;
    p[48] = {50 - mouthWidth / 2, corners};
    p[54] = {50 + mouthWidth / 2, corners};
    p[51] = {50, middle - innerOpening / 2 - 10};
    p[62] = {50, middle - innerOpening / 2};
    p[66] = {50, middle + innerOpening / 2};
    p[57] = {50, middle + innerOpening / 2 + 10};
    return p;
}

TEST(Smile, IsAWideMouthWithHighCornersHoweverTheHeadIsHeld) {
    const struct {
        const char* name;
        double width, cornersBelowNose, lipsBelowCorners, opening;
        bool smiles;
    } cases[] = {{"neutral", 78, 40, -1, 2, false},
                 {"pursed", 55, 42, 0, 0, false},
                 {"closed smile", 115, 28, 8, 2, true},
                 {"laughing", 112, 22, 14, 28, true},
                 {"sad", 75, 46, -6, 0, false}};
    for (const auto& c : cases) {
        LandmarkPoints points = schematicFace(c.width, c.cornersBelowNose, c.lipsBelowCorners, c.opening);
        EXPECT_EQ(isSmiling(points), c.smiles) << c.name;
        const double score = smileScore(smileFeaturesOf(points).value());
        for (Point& p : points)
            p = {7 + 3.7 * (0.8 * p.x + 0.6 * p.y), 3.7 * (0.8 * p.y - 0.6 * p.x)};  // near and tilted
        EXPECT_NEAR(smileScore(smileFeaturesOf(points).value()), score, 1e-9) << c.name;
    }
    EXPECT_FALSE(isSmiling(LandmarkPoints{}));
}

TEST(FaceDetector, ShowsPicturesAsTheirOrientationSays) {
    // Where the buffer's top left corner is shown.
    const std::pair<ImageOrientation, Point> cases[] = {
        {ImageOrientation::Up, {0, 0}},           {ImageOrientation::Down, {1, 1}},
        {ImageOrientation::Left, {0, 1}},         {ImageOrientation::Right, {1, 0}},
        {ImageOrientation::UpMirrored, {1, 0}},   {ImageOrientation::DownMirrored, {0, 1}},
        {ImageOrientation::LeftMirrored, {0, 0}}, {ImageOrientation::RightMirrored, {1, 1}}};
    for (const auto& [orientation, corner] : cases)
        EXPECT_EQ(viewForImageOrientation(orientation).toView(Point{}), corner);
}

}  // namespace
}  // namespace selvio::test
