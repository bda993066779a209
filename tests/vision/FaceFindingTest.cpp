// The request handler on frames made of a real portrait.
#include "support/ManualClock.h"
#include "vision/TestPictures.h"

#include <SelvioFacialCapture/linux/Vision.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <thread>

namespace selvio::test {
namespace {

using Observations = std::vector<FaceObservation>;

Observations perform(SequenceRequestHandler& handler, const std::shared_ptr<const PixelBuffer>& buffer,
                     std::uint32_t orientation = 5, bool isStillImage = false) {
    const auto result =
        handler.perform({.pixelBuffer = buffer, .exifOrientation = orientation, .isStillImage = isStillImage});
    if (!result) {
        ADD_FAILURE() << result.error().localizedDescription;
        return {};
    }
    EXPECT_FALSE(result.value().error);
    return result.value().observations;
}

Point onScreen(const FaceObservation& face, Point p, Size screen) {
    return {(face.boundingBox.y + p.y * face.boundingBox.height) * screen.width,
            (face.boundingBox.x + p.x * face.boundingBox.width) * screen.height};
}

TEST(FaceFinding, IsMirroredAndUprightHoweverTheDeviceIsHeld) {
    const Picture picture = frameOf(360, 640, {Person{.x = 0.45, .y = 0.42, .roll = 8}});
    const auto portraitFaces = perform(*makeSequenceRequestHandler(), toBgra(picture));
    ASSERT_EQ(portraitFaces.size(), 1U);
    // Left of the middle in the frame is right of it on the screen; above stays above.
    const auto& contour = portraitFaces[0].landmarks->faceContour->normalizedPoints;
    const Point left = onScreen(portraitFaces[0], contour[16], {360, 640});
    const Point right = onScreen(portraitFaces[0], contour[0], {360, 640});
    EXPECT_NEAR((left.x + right.x) / 2, 0.55 * 360, 4);
    EXPECT_NEAR((left.y + right.y) / 2, 0.42 * 640, 6);
    EXPECT_GT(onScreen(portraitFaces[0], contour[8], {360, 640}).y, left.y + 100);
    // The frame that shows the same view under orientation o: view (x, y) comes from these places of the upright frame.
    struct Case {
        std::uint32_t orientation;
        bool sideways;
        std::pair<int, int> (*from)(int x, int y);
    };
    const Case cases[] = {{7, false, [](int x, int y) { return std::pair(359 - x, 639 - y); }},
                          {4, true, [](int x, int y) { return std::pair(359 - y, x); }},
                          {2, true, [](int x, int y) { return std::pair(y, 639 - x); }}};
    for (const Case& c : cases) {
        const Picture turned = rearranged(picture, c.sideways ? 640 : 360, c.sideways ? 360 : 640, c.from);
        const auto faces = perform(*makeSequenceRequestHandler(), toBgra(turned), c.orientation);
        ASSERT_EQ(faces.size(), 1U) << c.orientation;
        for (std::size_t i = 0; i < 17; ++i) {
            const Point expected = onScreen(portraitFaces[0], contour[i], {360, 640});
            const Point found = onScreen(faces[0], faces[0].landmarks->faceContour->normalizedPoints[i], {360, 640});
            EXPECT_NEAR(found.x, expected.x, 2.5) << c.orientation << " contour " << i;
            EXPECT_NEAR(found.y, expected.y, 2.5) << c.orientation << " contour " << i;
        }
    }
}

TEST(FaceFinding, FindsOneFaceOverSizesTiltsAndLight) {
    for (const double jaw : {0.2, 0.4, 0.65, 0.9}) {
        for (const double roll : {-90.0, -40.0, 0.0, 10.0, 60.0}) {
            if (std::abs(roll) > 60 && jaw < 0.4) continue;
            const auto faces =
                perform(*makeSequenceRequestHandler(), to420v(frameOf(720, 1280, {Person{.jaw = jaw, .roll = roll}})));
            ASSERT_EQ(faces.size(), 1U) << jaw << " " << roll;
            // Found, but the points of a small or lying face are poor: 30 % is far below the least fill that passes.
            if (jaw < 0.3 || std::abs(roll) > (jaw < 0.4 ? 40 : 60)) continue;
            const auto& contour = faces[0].landmarks->faceContour->normalizedPoints;
            const Point left = onScreen(faces[0], contour[16], {720, 1280});
            const Point right = onScreen(faces[0], contour[0], {720, 1280});
            // The view is mirrored, so the tilt is the other way round.
            EXPECT_NEAR(std::atan2(right.y - left.y, right.x - left.x) * 180 / std::acos(-1.0), -roll,
                        std::abs(roll) > 40 ? 5.0 : 3.0)
                << jaw;
            EXPECT_NEAR(std::hypot(right.x - left.x, right.y - left.y) / 720, jaw, 0.05 * jaw) << roll;
        }
    }
    for (const double light : {0.05, 2.2}) {
        Picture picture = frameOf(720, 1280, {Person{}});
        for (auto& value : picture.rgb) value = static_cast<std::uint8_t>(std::min(255.0, value * light));
        EXPECT_EQ(perform(*makeSequenceRequestHandler(), toBgra(picture)).size(), 1U) << light;
    }
}

TEST(FaceFinding, GivesTheSamePointsForTheSameFrameWhateverElseGoesOn) {
    const auto picture = frameOf(360, 640, {Person{.x = 0.45}});
    const auto buffer = toBgra(picture);
    const auto alone = perform(*makeSequenceRequestHandler(), buffer);
    ASSERT_EQ(alone.size(), 1U);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 3; ++i) {
        threads.emplace_back([&, i] {
            const auto handler = makeSequenceRequestHandler();
            for (unsigned frame = 0; frame < 10; ++frame) {
                (void)perform(*handler, to420v(frameOf(180, 320, {Person{.x = 0.3 + 0.1 * i, .roll = 5.0 * frame}})));
                const auto faces = perform(*handler, buffer);
                ASSERT_EQ(faces.size(), 1U);
                EXPECT_EQ(faces[0].boundingBox, alone[0].boundingBox);
                EXPECT_EQ(faces[0].landmarks->nose->normalizedPoints, alone[0].landmarks->nose->normalizedPoints);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    // The other formats show the same face, and a second look finds it where the first did.
    VisionOptions twice;
    twice.refineLandmarks = true;
    for (const auto& [handler, same] : {std::pair{makeSequenceRequestHandler(), to420v(picture)},
                                        {makeSequenceRequestHandler(), toArgb(picture)},
                                        {makeSequenceRequestHandler(twice), buffer}}) {
        const auto faces = perform(*handler, same);
        ASSERT_EQ(faces.size(), 1U);
        const auto& contour = alone[0].landmarks->faceContour->normalizedPoints;
        for (std::size_t i = 0; i < contour.size(); ++i) {
            const Point expected = onScreen(alone[0], contour[i], {360, 640});
            const Point found = onScreen(faces[0], faces[0].landmarks->faceContour->normalizedPoints[i], {360, 640});
            EXPECT_NEAR(found.x, expected.x, 4.0) << i;
            EXPECT_NEAR(found.y, expected.y, 4.0) << i;
        }
    }
}

TEST(FaceFinding, SeesASmallSecondPersonWithinHalfASecond) {
    const auto clock = std::make_shared<ManualClock>();
    VisionOptions options;
    options.clock = clock;
    const auto handler = makeSequenceRequestHandler(options);
    const Person near{.x = 0.6, .y = 0.55, .jaw = 0.5};
    const auto alone = toBgra(frameOf(720, 1280, {near}));
    const auto together = [&](double x) {
        return toBgra(frameOf(720, 1280, {Person{.x = x, .y = 0.15, .jaw = 0.17}, near}));
    };
    const auto next = [&](const auto& buffer) {
        clock->advance(std::chrono::milliseconds(33));
        return perform(*handler, buffer).size();
    };
    for (int i = 0; i < 3; ++i) EXPECT_EQ(next(alone), 1U);
    int unseen = 0;
    const auto standing = together(0.2);
    while (next(standing) == 1U && unseen < 30) ++unseen;
    EXPECT_LE(unseen, 15);
    // Kept from frame to frame, also walking, and gone at once when gone.
    for (int i = 0; i < 15; ++i) EXPECT_EQ(next(together(0.2 + 0.005 * i)), 2U) << i;
    EXPECT_EQ(next(alone), 1U);
    // Slow frames: time counts, not their number.
    clock->advance(std::chrono::milliseconds(500));
    EXPECT_EQ(next(standing), 2U);
}

TEST(FaceFinding, SearchesAStillImageForTheSmallest) {
    const auto buffer = toBgra(frameOf(720, 1280, {Person{.x = 0.2, .y = 0.15, .jaw = 0.06}, Person{}}));
    const auto handler = makeSequenceRequestHandler();
    EXPECT_EQ(perform(*handler, buffer).size(), 1U);  // far in the background of a sequence it does not count
    EXPECT_EQ(perform(*handler, buffer, 5, /*isStillImage=*/true).size(), 2U);
}

TEST(FaceFinding, SaysWhyItCannotLook) {
    const auto good = toBgra(frameOf(90, 160, {}));
    PixelBufferLayout empty{.width = 0, .height = 0};
    PixelBufferLayout unknown = good->layout();
    unknown.format = 0x12345678;
    const std::string present = VisionOptions().meshModelPath;
    const std::string missing = "/nonexistent/mesh.tflite";
    struct Case {
        const char* name;
        std::shared_ptr<const PixelBuffer> buffer;
        std::uint32_t orientation;
        std::string modelPath;
        const char* words;
    };
    const Case cases[] = {
        {"null", nullptr, 5, present, "no pixel buffer"},
        {"empty", PixelBuffer::wrap(empty, {nullptr, nullptr}, [] {}), 5, present, "size or format"},
        {"unknown", PixelBuffer::wrap(unknown, {nullptr, nullptr}, [] {}), 5, present, "size or format"},
        {"orientation", good, 9, present, "orientation 9"},
        {"model", good, 5, missing, "/nonexistent/mesh.tflite"}};
    for (const Case& c : cases) {
        VisionOptions options;
        options.meshModelPath = c.modelPath;
        const auto result =
            makeSequenceRequestHandler(options)->perform({.pixelBuffer = c.buffer, .exifOrientation = c.orientation});
        ASSERT_FALSE(result) << c.name;
        EXPECT_NE(result.error().localizedDescription.find(c.words), std::string::npos)
            << result.error().localizedDescription;
    }
}

TEST(FaceFinding, SurvivesOddSizes) {
    for (const auto& [width, height] :
         {std::pair{1, 1}, {2, 3}, {1, 4000}, {4000, 1}, {79, 81}, {361, 643}, {3000, 40}}) {
        const Picture picture = frameOf(width, height, {Person{}});
        for (const std::uint32_t orientation : {5U, 4U}) {
            for (const auto& buffer : {toBgra(picture), to420v(picture), toArgb(picture)})
                (void)perform(*makeSequenceRequestHandler(), buffer, orientation);
        }
    }
    // A change of size between two frames, and a face in a small odd one.
    const auto handler = makeSequenceRequestHandler();
    EXPECT_EQ(perform(*handler, toBgra(frameOf(361, 643, {Person{}}))).size(), 1U);
    EXPECT_EQ(perform(*handler, to420v(frameOf(181, 321, {Person{}}))).size(), 1U);
}

}  // namespace
}  // namespace selvio::test
