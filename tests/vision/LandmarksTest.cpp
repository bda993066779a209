// The shape predictor and the layout of its points.
#include "platform/linux/vision/LandmarkLayout.h"
#include "platform/linux/vision/LandmarkModel.h"
#include "support/TemporaryDirectory.h"
#include "vision/TestPictures.h"

#include <SelvioFacialCapture/linux/Vision.h>

#include <dlib/image_processing.h>
#include <gtest/gtest.h>

#include <cmath>

namespace selvio::test {
namespace {

TEST(LandmarkModel, AgreesWithTheOriginalPredictor) {
    const auto model = LandmarkModel::load(kDefaultLandmarkModelPath);
    ASSERT_TRUE(model) << model.error().localizedDescription;
    dlib::shape_predictor original;
    dlib::deserialize(kDefaultLandmarkModelPath) >> original;
    GreyImage grey;
    ASSERT_TRUE(GreyViewMaker().make(*toBgra(frameOf(300, 400, {Person{}})), {0, 0, 300, 400}, {}, 300, 400, grey));
    dlib::array2d<unsigned char> same(400, 300);
    for (long y = 0; y < 400; ++y) {
        for (long x = 0; x < 300; ++x) same[y][x] = grey.pixels[static_cast<std::size_t>(y * 300 + x)];
    }
    // Their points are whole pixels: 0.29 off on average by that alone. A probe on the edge between two pixels may send
    // a tree another way.
    double squares = 0.0;
    double coordinates = 0.0;
    for (const auto& [left, top, side] :
         {std::tuple{65, 150, 170}, {60, 140, 180}, {90, 170, 150}, {50, 130, 200}, {68, 155, 160}}) {
        const auto theirs = original(same, dlib::rectangle(left, top, left + side, top + side));
        const LandmarkPoints ours = model.value()->predict(
            grey, {static_cast<double>(side), 0.0, static_cast<double>(left), static_cast<double>(top)});
        for (std::size_t i = 0; i < ours.size(); ++i) {
            const double dx = ours[i].x - static_cast<double>(theirs.part(i).x());
            const double dy = ours[i].y - static_cast<double>(theirs.part(i).y());
            EXPECT_LT(std::hypot(dx, dy), 1.8) << left << " point " << i;
            squares += dx * dx + dy * dy;
            coordinates += 2.0;
        }
    }
    EXPECT_LT(std::sqrt(squares / coordinates), 0.45);
}

TEST(LandmarkModel, SaysWhichFileIsMissingOrDamaged) {
    const TemporaryDirectory directory;
    std::string start(200'000, '\0');
    std::ifstream(kDefaultLandmarkModelPath, std::ios::binary)
        .read(start.data(), static_cast<std::streamsize>(start.size()));
    std::string flipped = start;
    for (std::size_t i = 100; i < flipped.size(); i += 97) flipped[i] = static_cast<char>(~flipped[i]);
    const std::pair<const char*, std::string> cases[] = {
        {"empty", ""}, {"text", "this is not a model"}, {"truncated", start}, {"damaged", flipped}};
    const auto expectError = [](const std::string& path) {
        const auto model = LandmarkModel::load(path);
        ASSERT_FALSE(model) << path;
        EXPECT_NE(model.error().localizedDescription.find(path), std::string::npos);
        EXPECT_NE(model.error().localizedDescription.find("libdlib-data"), std::string::npos);
    };
    expectError("/nonexistent/model.dat");
    expectError("/");
    for (const auto& [name, content] : cases) expectError(directory.write(name, content));
}

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
