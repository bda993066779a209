// The reader of model files, and what is made of a face's points: their layout, the smile, and the ways a picture is
// shown.
#include "platform/linux/vision/LandmarkLayout.h"
#include "platform/linux/vision/ModelFile.h"
#include "platform/linux/vision/Smile.h"
#include "platform/linux/vision/ViewTransform.h"
#include "support/TemporaryDirectory.h"

#include <SelvioFacialCapture/linux/Vision.h>

#include <gmock/gmock.h>

#include <cmath>
#include <cstring>

namespace {

using namespace selvio;

using testing::ElementsAre;
using testing::HasSubstr;

constexpr int kChild = -1;  ///< the field is a table and no list

/// The place of a number in the tree of tables that a model file is. Its path: a field of the root table, an
/// element of that list, which is a table again, one of its fields, and so on.
std::size_t placeOf(const std::string& file, const std::vector<int>& path) {
    const auto read = [&]<typename Number>(std::size_t at, Number number) {
        std::memcpy(&number, &file[at], sizeof number);
        return static_cast<std::size_t>(number);
    };
    std::size_t at = 0;
    for (std::size_t step = 0; step < path.size(); step += 2) {
        const std::size_t table = at + read(at, std::uint32_t{});
        const std::size_t fields = table - read(table, std::int32_t{});
        at = table + read(fields + 4 + 2 * static_cast<std::size_t>(path[step]), std::uint16_t{});
        if (step + 1 == path.size() || path[step + 1] == kChild) continue;
        at += read(at, std::uint32_t{}) + 4 + 4 * static_cast<std::size_t>(path[step + 1]);
    }
    return at;
}

// One byte of the network that finds faces is another one.
TEST(ModelFile, RefusesWhatItDoesNotKnowByName) {
    const std::string good = contentOf(VisionOptions().detectionModelPath);
    ASSERT_TRUE(parseModel(std::as_bytes(std::span(good))));
    enum Root { Operators = 1, Graphs = 2, Buffers = 4 };
    enum Graph { Tensors, Inputs, Outputs, Steps };
    enum Tensor { Shape, Type, Buffer };
    enum Step { Operator, StepInputs, StepOutputs, Options = 4 };
    // What is said when the number at the end of the path has this value in that byte of it, the lowest being 0.
    const std::tuple<const char*, std::vector<int>, int, std::size_t> cases[] = {
        {"operator number 99", {Operators, 1, 0}, 99, 0},
        {"no operator", {Graphs, 0, Steps, 3, Operator}, 99, 0},
        {"no buffer", {Graphs, 0, Tensors, 2, Buffer}, 1, 3},
        {"impossible shape", {Graphs, 0, Tensors, 0, Shape, 1}, 0, 0},
        {"too large", {Graphs, 0, Tensors, 3, Shape, 1}, 0x28, 1},
        {"does not fill", {Graphs, 0, Tensors, 2, Shape, 0}, 23, 0},
        {"unknown type 9", {Graphs, 0, Tensors, 2, Type}, 9, 0},
        {"finite", {Buffers, 2, 0, 0}, 0x7C, 1},
        {"not a picture", {Graphs, 0, Inputs, 0}, 1, 0},
        {"output is not computed", {Graphs, 0, Outputs, 0}, 0, 0},
        {"tensor does not exist", {Graphs, 0, Steps, 2, StepInputs, 0}, 250, 0},
        {"known already", {Graphs, 0, Steps, 3, StepOutputs, 0}, 3, 0},
        {"Convolution", {Graphs, 0, Steps, 2, StepInputs, 0}, 4, 0},  // not computed yet
        {"Convolution", {Graphs, 0, Tensors, 3, Shape, 2}, 63, 0},
        {"Convolution", {Graphs, 0, Steps, 2, Options, kChild, 1}, 0, 0},  // stride
        {"padding", {Graphs, 0, Steps, 9, Options, kChild, 0}, 2, 0},
        {"channel multiplier", {Graphs, 0, Steps, 6, Options, kChild, 3}, 2, 0},
        {"Add", {Graphs, 0, Steps, 10, StepInputs, 1}, 0, 0},
        {"MaxPool", {Graphs, 0, Steps, 107, Options, kChild, 3}, 0, 0},
        {"Reshape", {Graphs, 0, Steps, 158, StepInputs, 0}, 163, 0},
        {"Concatenation", {Graphs, 0, Steps, 162, Options, kChild, 0}, 2, 0},
        {"Pad", {Graphs, 0, Steps, 83, StepInputs, 1}, 92, 0},
    };
    for (const auto& [words, path, value, byte] : cases) {
        std::string spoilt = good;
        spoilt[placeOf(good, path) + byte] = static_cast<char>(value);
        const auto parsed = parseModel(std::as_bytes(std::span(spoilt)));
        EXPECT_THAT(parsed ? "" : parsed.error().localizedDescription, HasSubstr(words));
    }
}

TEST(ModelFile, SaysWhichFileIsMissingOrDamaged) {
    const TemporaryDirectory directory;
    const std::string whole = contentOf(VisionOptions().meshModelPath);
    std::string flipped = whole;
    for (std::size_t i = 100; i < flipped.size(); i += 97) flipped[i] = static_cast<char>(~flipped[i]);
    for (const std::string& path :
         {std::string("/nonexistent/model.tflite"), std::string("/"), directory.write("empty", ""),
          directory.write("truncated", whole.substr(0, whole.size() - 50'000)), directory.write("flipped", flipped),
          std::string(VisionOptions().detectionModelPath)}) {  // a good one, for something else
        const auto error = waitForVisionModels({.meshModelPath = path, .clock = {}});
        EXPECT_THAT(error ? error->localizedDescription : "",
                    testing::AllOf(HasSubstr(path), HasSubstr("scripts/install-deps.sh")));
    }
    EXPECT_FALSE(waitForVisionModels());
}

TEST(LandmarkLayout, PutsThePointsWhereTheChecksReadThem) {
    // Point i lies at (i, 100 + i) in a box of 100 x 50 at (10, 20) of a view of 400 x 200.
    FoundFace face{.box = {10, 20, 100, 50}, .points = {}};
    for (std::size_t i = 0; i < face.points.size(); ++i)
        face.points[i] = {static_cast<double>(i), 100.0 + static_cast<double>(i)};
    const auto numbers = [](const FaceLandmarkRegion& region, const std::vector<std::size_t>& places) {
        std::vector<long> numbers{static_cast<long>(region.normalizedPoints.size())};
        for (const std::size_t place : places) {
            const Point p = region.normalizedPoints.at(place);
            numbers.push_back(std::lround(p.y * 100 + 10));
            EXPECT_NEAR(p.x * 50 + 20, 110 + p.y * 100, 1e-9);
        }
        return numbers;
    };
    const FaceObservation newer = observationOf(face, {400, 200}, 3), older = observationOf(face, {400, 200}, 2);
    EXPECT_EQ(newer.boundingBox, (Rect{0.1, 0.025, 0.25, 0.25}));
    EXPECT_THAT(numbers(*newer.landmarks->outerLips, {13, 7}), ElementsAre(14, 48, 54));
    EXPECT_THAT(numbers(*older.landmarks->outerLips, {9, 5}), ElementsAre(10, 48, 54));
    EXPECT_THAT(numbers(*older.landmarks->faceContour, {0, 5, 10}), ElementsAre(11, 0, 8, 16));
}

/// A schematic face, eyes 100 apart and level, the nose's base 60 below them.
LandmarkPoints schematicFace(double mouthWidth, double cornersBelowNose, double lipsBelowCorners, double innerOpening) {
    LandmarkPoints p{};
    const Point eye[] = {{-15, 0}, {-5, -5}, {5, -5}, {15, 0}, {5, 5}, {-5, 5}};
    for (std::size_t i = 0; i < 12; ++i) p[36 + i] = {eye[i % 6].x + (i < 6 ? 0 : 100), eye[i % 6].y};
    p[33] = {50, 60};
    const double corners = 60 + cornersBelowNose, middle = corners + lipsBelowCorners;
    p[48] = {50 - mouthWidth / 2, corners};
    p[54] = {50 + mouthWidth / 2, corners};
    const std::pair<std::size_t, double> lips[] = {
        {51, -innerOpening / 2 - 10}, {62, -innerOpening / 2}, {66, innerOpening / 2}, {57, innerOpening / 2 + 10}};
    for (const auto& [number, below] : lips) p[number] = {50, middle + below};
    return p;
}

TEST(Smile, IsAWideMouthWithHighCornersHoweverTheHeadIsHeld) {
    const std::pair<LandmarkPoints, bool> cases[] = {{schematicFace(78, 40, -1, 2), false},   // neutral
                                                     {schematicFace(55, 42, 0, 0), false},    // pursed
                                                     {schematicFace(115, 28, 8, 2), true},    // closed
                                                     {schematicFace(112, 22, 14, 28), true},  // laughing
                                                     {schematicFace(75, 46, -6, 0), false}};  // sad
    for (auto [points, smiles] : cases) {
        const double score = smileScore(smileFeaturesOf(points).value());
        EXPECT_EQ(isSmiling(points), smiles) << score;
        for (Point& p : points)
            p = {7 + 3.7 * (0.8 * p.x + 0.6 * p.y), 3.7 * (0.8 * p.y - 0.6 * p.x)};  // near and tilted
        EXPECT_NEAR(smileScore(smileFeaturesOf(points).value()), score, 1e-9);
    }
    EXPECT_FALSE(isSmiling(LandmarkPoints{}));
}

TEST(FaceDetector, ShowsPicturesAsTheirOrientationSays) {
    using enum ImageOrientation;
    // Where the buffer's top left corner is shown.
    const std::pair<ImageOrientation, Point> cases[] = {
        {Up, {0, 0}},         {Down, {1, 1}},         {Left, {0, 1}},         {Right, {1, 0}},
        {UpMirrored, {1, 0}}, {DownMirrored, {0, 1}}, {LeftMirrored, {0, 0}}, {RightMirrored, {1, 1}}};
    for (const auto& [orientation, corner] : cases)
        EXPECT_EQ(viewForImageOrientation(orientation).toView(Point{}), corner);
}

}  // namespace
