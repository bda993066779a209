// The smile classifier: its features, its decision, and what the detector does with a frame that was just examined.
#include "platform/linux/vision/Smile.h"
#include "platform/linux/vision/ViewTransform.h"
#include "vision/TestPictures.h"

#include <SelvioFacialCapture/linux/Vision.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace selvio::test {
namespace {

/// A schematic face, eyes 100 apart and level, the nose's base 60 below them.
LandmarkPoints schematicFace(double mouthWidth, double cornersBelowNose, double lipsBelowCorners, double innerOpening) {
    LandmarkPoints p{};
    const auto eye = [&](std::size_t first, double x) {
        const Point offsets[] = {{-15, 0}, {-5, -5}, {5, -5}, {15, 0}, {5, 5}, {-5, 5}};
        for (std::size_t i = 0; i < 6; ++i) p[first + i] = {x + offsets[i].x, offsets[i].y};
    };
    eye(36, 0);
    eye(42, 100);
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
    struct Case {
        const char* name;
        double width, cornersBelowNose, lipsBelowCorners, opening;
        bool smiles;
    };
    for (const Case& c : {Case{"neutral", 78, 40, -1, 2, false},
                          {"pursed", 55, 42, 0, 0, false},
                          {"closed smile", 115, 28, 8, 2, true},
                          {"laughing", 112, 22, 14, 28, true},
                          {"sad", 75, 46, -6, 0, false}}) {
        LandmarkPoints points = schematicFace(c.width, c.cornersBelowNose, c.lipsBelowCorners, c.opening);
        EXPECT_EQ(isSmiling(points), c.smiles) << c.name;
        const auto features = smileFeaturesOf(points).value();
        for (Point& p : points)
            p = {7 + 3.7 * (0.8 * p.x + 0.6 * p.y), 3.7 * (0.8 * p.y - 0.6 * p.x)};  // near and tilted
        for (std::size_t i = 0; i < features.size(); ++i)
            EXPECT_NEAR(smileFeaturesOf(points).value()[i], features[i], 1e-9) << i << c.name;
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

std::shared_ptr<FaceDetector> detectorWithoutModels() {
    VisionOptions options;
    options.detectionModelPath = "/nonexistent";
    return makeFaceDetector(options);
}

TEST(FaceDetector, FindsTheSmilingFaceOfThePortrait) {
    const auto detector = makeFaceDetector();
    // The portrait turned on its side must be judged as it is shown.
    const Picture upright = frameOf(360, 640, {Person{.x = 0.4, .y = 0.35}});
    const Picture turned = rearranged(upright, 640, 360, [](int x, int y) { return std::pair(359 - y, x); });
    for (const Image& image : {Image{.bitmap = toBgra(upright)}, Image{.bitmap = to420v(upright)},
                               Image{.bitmap = toBgra(turned), .orientation = ImageOrientation::Right}}) {
        const auto faces = detector->featuresInImage(image, true);
        ASSERT_EQ(faces.size(), 1U);
        EXPECT_TRUE(faces[0].hasSmile);
        EXPECT_NEAR(faces[0].bounds.x + faces[0].bounds.width / 2, 0.4 * 360, 12);
        EXPECT_NEAR(faces[0].bounds.width, 0.55 * 360, 30);
        EXPECT_NEAR(faces[0].bounds.y + faces[0].bounds.height / 2, 0.35 * 640 + 50, 30);
    }
    EXPECT_FALSE(detector->featuresInImage({.bitmap = toBgra(upright)}, false).at(0).hasSmile);
    EXPECT_TRUE(detector->featuresInImage({}, true).empty());
    EXPECT_TRUE(detectorWithoutModels()->featuresInImage({.bitmap = toBgra(upright)}, true).empty());
}

TEST(FaceDetector, FindsEveryFaceOfAPictureOnce) {
    const std::vector<Person> people{{.x = 0.2, .y = 0.3, .jaw = 0.06},
                                     {.x = 0.45, .y = 0.4, .jaw = 0.09},
                                     {.x = 0.75, .y = 0.5, .jaw = 0.14, .roll = -20},
                                     {.x = 0.2, .y = 0.7, .jaw = 0.22, .roll = 30}};
    const int width = 1200;
    const int height = 900;
    for (const auto& buffer : {toBgra(frameOf(width, height, people)), to420v(frameOf(width, height, people))}) {
        const auto faces = makeFaceDetector()->featuresInImage({.bitmap = buffer}, false);
        EXPECT_EQ(faces.size(), people.size());
        for (const Person& person : people) {
            // The box reaches from the brows to the chin, half a jaw's width below the upper ends of the jaw line.
            const double angle = person.roll * std::acos(-1.0) / 180;
            const double x = person.x * width - std::sin(angle) * 0.3 * person.jaw * width;
            const double y = person.y * height + std::cos(angle) * 0.3 * person.jaw * width;
            EXPECT_EQ(std::count_if(faces.begin(), faces.end(),
                                    [&](const FaceFeature& face) {
                                        return std::hypot(face.bounds.x + face.bounds.width / 2 - x,
                                                          face.bounds.y + face.bounds.height / 2 - y) <
                                               0.25 * person.jaw * width;
                                    }),
                      1)
                << person.jaw;
        }
    }
}

TEST(FaceDetector, ReusesTheFrameThatWasJustExamined) {
    const auto buffer = toBgra(frameOf(360, 640, {Person{.x = 0.4}}));
    ASSERT_TRUE(makeSequenceRequestHandler()->perform({.pixelBuffer = buffer, .exifOrientation = 5}));
    // Without a model it can only know the face from there; the view was mirrored, the picture is not.
    const auto detector = detectorWithoutModels();
    const auto faces = detector->featuresInImage({.bitmap = buffer}, true);
    ASSERT_EQ(faces.size(), 1U);
    EXPECT_TRUE(faces[0].hasSmile);
    EXPECT_NEAR(faces[0].bounds.x + faces[0].bounds.width / 2, 0.4 * 360, 12);
}

}  // namespace
}  // namespace selvio::test
