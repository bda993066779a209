// The request handler and the detector on frames made of a real portrait.
#include "support/ManualClock.h"
#include "support/SampleScene.h"

#include <SelvioFacialCapture/SelvioFacialCaptureImageUtilities.h>
#include <SelvioFacialCapture/linux/Vision.h>

#include <gmock/gmock.h>

#include <cmath>
#include <numbers>
#include <numeric>
#include <thread>

namespace {

using namespace selvio;

using Utilities = SelvioFacialCaptureImageUtilities;

constexpr double kPi = std::numbers::pi;

Bitmap frameOf(int width, int height, const std::string& keyFrame, PixelFormat format = kPixelFormat32BGRA) {
    return sampleScene(keyFrame)->frame({}, width, height, format);
}

/// One face in the middle of the frame, and another one.
std::string withSecond(const std::string& pose, const std::string& other) {
    return R"({"at": 0, "visible": true, )" + pose + R"(, "second": {)" + other + "}}";
}

std::vector<FaceObservation> perform(SequenceRequestHandler& handler, const Bitmap& buffer,
                                     std::uint32_t orientation = 5, bool isStillImage = false) {
    auto result =
        handler.perform({.pixelBuffer = buffer, .exifOrientation = orientation, .isStillImage = isStillImage});
    EXPECT_TRUE(result && !result.value().error);
    return result ? std::move(result.value().observations) : std::vector<FaceObservation>();
}

/// The contour of the one face, which a new handler finds, on a screen as large as the upright frame, its right end
/// first.
std::vector<Point> contourOn(Size screen, const Bitmap& buffer, std::uint32_t orientation = 5,
                             const VisionOptions& options = {}) {
    const auto faces = perform(*makeSequenceRequestHandler(options), buffer, orientation);
    EXPECT_EQ(faces.size(), 1U);
    const auto& [box, landmarks] = faces.at(0);
    std::vector<Point> points;
    for (const Point p : landmarks->faceContour->normalizedPoints)
        points.push_back({(box.y + p.y * box.height) * screen.width, (box.x + p.x * box.width) * screen.height});
    return points;
}

double farthest(const std::vector<Point>& found, const std::vector<Point>& expected) {
    return std::transform_reduce(
        found.begin(), found.end(), expected.begin(), 0.0, [](double p, double q) { return std::max(p, q); },
        [](Point p, Point q) { return std::hypot(p.x - q.x, p.y - q.y); });
}

TEST(FaceFinding, IsMirroredAndUprightHoweverTheDeviceIsHeldAndWhateverTheFormat) {
    const Size screen{360, 640};
    const std::string face = oneFace(0.45, 0.42, 0.55, 8);
    const auto picture = frameOf(360, 640, face);
    const auto contour = contourOn(screen, picture);
    // Left of the middle in the frame is right of it on the screen; above stays above.
    EXPECT_NEAR((contour[16].x + contour[0].x) / 2, 0.55 * 360, 4);
    EXPECT_NEAR((contour[16].y + contour[0].y) / 2, 0.42 * 640, 4);
    EXPECT_GT(contour[8].y, contour[16].y + 100);
    const std::pair<std::uint32_t, Bitmap> same[] = {{7, Utilities::rotateCGImage(picture, kPi)},
                                                     {4, Utilities::rotateCGImage(picture, -kPi / 2)},
                                                     {2, Utilities::rotateCGImage(picture, kPi / 2)},
                                                     {5, Utilities::pixelBufferFromCGImage(picture)},
                                                     {5, frameOf(360, 640, face, kPixelFormat420v)}};
    for (const auto& [orientation, buffer] : same)
        EXPECT_LT(farthest(contourOn(screen, buffer, orientation), contour), 1) << orientation;
    EXPECT_LT(farthest(contourOn(screen, picture, 5, {.refineLandmarks = true, .clock = {}}), contour), 7);
}

TEST(FaceFinding, FindsOneFaceOverSizesTiltsAndLight) {
    for (const double jaw : {0.22, 0.4, 0.65, 0.9}) {
        for (const double roll : {-90.0, -40.0, 0.0, 10.0, 60.0}) {
            if (std::abs(roll) > 60 && jaw < 0.4) continue;
            SCOPED_TRACE(testing::Message() << jaw << " " << roll);
            const auto contour =
                contourOn({720, 1280}, frameOf(720, 1280, oneFace(0.5, 0.5, jaw, roll), kPixelFormat420v));
            // Found, but the points of a small or lying face are poor: 30 % is far below the least fill that passes.
            if (jaw < 0.3 || std::abs(roll) > (jaw < 0.4 ? 40 : 60)) continue;
            const Point across{contour[0].x - contour[16].x, contour[0].y - contour[16].y};
            // The view is mirrored, so the tilt is the other way round.
            EXPECT_NEAR(std::atan2(across.y, across.x) * 180 / kPi, -roll, std::abs(roll) > 40 ? 5 : 3);
            EXPECT_NEAR(std::hypot(across.x, across.y) / 720, jaw, 0.05 * jaw);
        }
    }
    for (const char* const light : {R"(, "light": 0.05)", R"(, "light": 2.2)"})
        (void)contourOn({720, 1280}, frameOf(720, 1280, oneFace(0.5, 0.5, 0.55, 0, light)));
}

TEST(FaceFinding, GivesTheSamePointsForTheSameFrameWhateverElseGoesOn) {
    const auto buffer = frameOf(360, 640, oneFace(0.45, 0.5, 0.55));
    const auto alone = perform(*makeSequenceRequestHandler(), buffer).at(0).landmarks->faceContour->normalizedPoints;
    std::vector<std::jthread> threads;
    for (const double x : {0.3, 0.4, 0.5}) {
        threads.emplace_back([&, x] {
            const auto handler = makeSequenceRequestHandler();
            for (int frame = 0; frame < 10; ++frame) {
                const auto other = oneFace(x, 0.5, 0.55, 5 * frame);
                (void)perform(*handler, frameOf(180, 320, other, kPixelFormat420v));
                EXPECT_EQ(perform(*handler, buffer).at(0).landmarks->faceContour->normalizedPoints, alone);
            }
        });
    }
}

TEST(FaceFinding, SeesASmallSecondPersonWithinHalfASecond) {
    const auto clock = std::make_shared<ManualClock>();
    const auto handler = makeSequenceRequestHandler({.clock = clock});
    const auto alone = frameOf(720, 1280, oneFace(0.7, 0.6, 0.45));
    const auto together = [&](double x, double jaw) {
        return frameOf(720, 1280, withSecond(poseFields(0.7, 0.6, 0.45, 0), poseFields(x, 0.15, jaw, 0)));
    };
    const auto next = [&](const auto& buffer) {
        clock->advance(std::chrono::milliseconds(10));  // of fast frames the number counts
        return perform(*handler, buffer).size();
    };
    for (int i = 0; i < 3; ++i) EXPECT_EQ(next(alone), 1U);
    int unseen = 0;
    const auto standing = together(0.2, 0.14);
    while (next(standing) == 1U && unseen < 30) ++unseen;
    EXPECT_GE(unseen, 5) << "too large to show the search for small ones";
    EXPECT_LE(unseen, 15);
    // Kept from frame to frame, also walking, and gone at once when gone.
    for (int i = 0; i < 15; ++i) EXPECT_EQ(next(together(0.2 + 0.005 * i, 0.2)), 2U) << i;
    EXPECT_EQ(next(alone), 1U);
    clock->advance(std::chrono::milliseconds(500));
    EXPECT_EQ(next(standing), 2U) << "of slow frames the time counts";
    // A still image is searched for smaller ones still, which in the background of a sequence do not count.
    const auto far = frameOf(720, 1280, withSecond(poseFields(0.5, 0.5, 0.55, 0), poseFields(0.2, 0.15, 0.06, 0)));
    EXPECT_EQ(perform(*makeSequenceRequestHandler(), far).size(), 1U);
    EXPECT_EQ(perform(*handler, far, 5, /*isStillImage=*/true).size(), 2U);
}

TEST(FaceFinding, SaysWhyItCannotLook) {
    const auto good = PixelBuffer::create(90, 160, kPixelFormat32BGRA);
    PixelBufferLayout unknown = good->layout();
    unknown.format = 0x12345678;
    const auto luma = PixelBuffer::create(90, 160, kPixelFormat420v);
    const std::tuple<Bitmap, std::uint32_t, VisionOptions, const char*> cases[] = {
        {nullptr, 5, {}, "no pixel buffer"},
        {PixelBuffer::wrap({.width = 0, .height = 0}, {nullptr, nullptr}, [] {}), 5, {}, "size or format"},
        {PixelBuffer::wrap(unknown, {nullptr, nullptr}, [] {}), 5, {}, "size or format"},
        {PixelBuffer::wrap(luma->layout(), {luma->data(), nullptr}, [] {}), 5, {}, "size or format"},
        {good, 9, {}, "orientation 9"},
        {good, 5, {.meshModelPath = "/nonexistent/mesh.tflite", .clock = {}}, "/nonexistent/mesh.tflite"}};
    for (const auto& [buffer, orientation, options, words] : cases) {
        const auto result =
            makeSequenceRequestHandler(options)->perform({.pixelBuffer = buffer, .exifOrientation = orientation});
        EXPECT_THAT(result ? "" : result.error().localizedDescription, testing::HasSubstr(words));
    }
}

TEST(FaceFinding, SurvivesOddSizes) {
    const std::string face = oneFace(0.5, 0.5, 0.55);
    const auto handler = makeSequenceRequestHandler();
    for (const auto& [width, height] : {std::pair{1, 1}, {2, 3}, {1, 4000}, {4000, 1}, {79, 81}, {3000, 40}}) {
        const auto bgra = frameOf(width, height, face);
        for (const auto& buffer :
             {bgra, frameOf(width, height, face, kPixelFormat420v), Bitmap(Utilities::pixelBufferFromCGImage(bgra))}) {
            for (const std::uint32_t orientation : {5U, 4U}) (void)perform(*handler, buffer, orientation);
        }
    }
    EXPECT_EQ(perform(*handler, frameOf(361, 643, face)).size(), 1U);
    EXPECT_EQ(perform(*handler, frameOf(181, 321, face, kPixelFormat420v)).size(), 1U);
}

TEST(FaceDetector, FindsTheSmilingFaceOfThePortrait) {
    const auto upright = frameOf(360, 640, oneFace(0.4, 0.35, 0.55));
    // The portrait turned on its side must be judged as it is shown.
    const auto turned = Utilities::rotateCGImage(upright, -kPi / 2);
    const auto blind = makeFaceDetector({.detectionModelPath = "/nonexistent", .clock = {}});
    EXPECT_TRUE(blind->featuresInImage({.bitmap = upright}, true).empty());
    const auto detector = makeFaceDetector();
    EXPECT_FALSE(detector->featuresInImage({.bitmap = upright}, false).at(0).hasSmile);
    EXPECT_TRUE(detector->featuresInImage({}, true).empty());
    const auto onItsSide = detector->featuresInImage({.bitmap = turned, .orientation = ImageOrientation::Right}, true);
    // A frame that was just examined is not examined again. The view of that was mirrored, the picture is not.
    (void)perform(*makeSequenceRequestHandler(), upright);
    for (const auto& faces : {detector->featuresInImage({.bitmap = upright}, true), onItsSide,
                              blind->featuresInImage({.bitmap = upright}, true)}) {
        ASSERT_EQ(faces.size(), 1U);
        EXPECT_TRUE(faces[0].hasSmile);
        const auto [x, y, width, height] = faces[0].bounds;
        EXPECT_NEAR(x + width / 2, 0.4 * 360, 12);
        EXPECT_NEAR(width, 0.55 * 360, 30);
        EXPECT_NEAR(y + height / 2, 0.35 * 640 + 50, 30);
    }
}

TEST(FaceDetector, FindsEveryFaceOfAPictureOnce) {
    for (const auto& [large, small] : {std::pair{poseFields(0.75, 0.5, 0.18, -20), poseFields(0.2, 0.3, 0.08, 0)},
                                       {poseFields(0.2, 0.7, 0.29, 30), poseFields(0.45, 0.4, 0.12, 0)}}) {
        const auto scene = sampleScene(withSecond(large, small));
        const auto picture = scene->frame({}, 1200, 900, kPixelFormat420v);
        auto faces = makeFaceDetector()->featuresInImage({.bitmap = picture}, false);
        EXPECT_EQ(faces.size(), 2U);
        for (const FrameFace& face : scene->trueGeometry({}, 1200, 900)) {
            // The box reaches from the brows to the chin: its middle is that of nose and mouth.
            const Point nose = face.landmarks.at("noseTip");
            const double jaw = std::hypot(face.jawRight.x - face.jawLeft.x, face.jawRight.y - face.jawLeft.y);
            const auto isIts = [&](const FaceFeature& found) {
                const Rect& box = found.bounds;
                return std::hypot(box.x + box.width / 2 - nose.x, box.y + box.height / 2 - nose.y) < 0.25 * jaw;
            };
            EXPECT_EQ(std::erase_if(faces, isIts), 1U) << jaw;
        }
    }
}

}  // namespace
