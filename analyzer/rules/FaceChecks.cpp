#include <SelvioFacialCapture/rules/FaceChecks.h>

#include <algorithm>
#include <cmath>

namespace selvio::rules {
namespace {

// The landmarks that the checks read.
struct Landmarks {
    Point firstContourEnd;
    Point secondContourEnd;
    Point chin;
    Point noseSideA;
    Point noseSideB;
    Point noseMiddle;
    Point lipLeft;
    Point lipRight;
};

Point at(const std::optional<std::vector<Point>>& points, std::size_t index) {
    return points && index < points->size() ? (*points)[index] : Point{};
}

Landmarks landmarksOf(const FacePoints& points) {
    const bool longContour = points.contour && points.contour->size() == 17;
    const bool longLips = points.outerLips && points.outerLips->size() == 14;
    return {
        .firstContourEnd = at(points.contour, longContour ? 16 : 0),
        .secondContourEnd = at(points.contour, longContour ? 0 : 10),
        .chin = at(points.contour, longContour ? 8 : 5),
        .noseSideA = at(points.nose, 2),
        .noseSideB = at(points.nose, 6),
        .noseMiddle = at(points.nose, 4),
        .lipLeft = at(points.outerLips, longLips ? 13 : 9),
        .lipRight = at(points.outerLips, longLips ? 7 : 5),
    };
}

double largerOverSmaller(double a, double b) {
    return a > b ? a / b : b / a;
}

FaceMeasures measure(const Landmarks& face, const FaceLimits& limits, double biggerScreenSide,
                     double smallerScreenSide) {
    const Point& a = face.firstContourEnd;
    const Point& b = face.secondContourEnd;
    const bool tallScreen = biggerScreenSide / smallerScreenSide > 1.78;
    const double screenFactor = tallScreen ? 1.218 : 1.0;
    const auto fromNeutral = [](std::int64_t strictness) { return static_cast<double>(500 - strictness); };

    FaceMeasures m;
    m.rollRatio = largerOverSmaller(a.y, b.y);
    m.rollLimit = fromNeutral(limits.roll) * 0.0005 + 1.25;
    m.yawRatio = largerOverSmaller(std::abs(face.noseSideB.x - face.noseMiddle.x),
                                   std::abs(face.noseSideA.x - face.noseMiddle.x));
    m.yawLimit = fromNeutral(limits.yaw) * 0.001 + 1.8;
    m.pitchRatio = std::abs((face.chin.y - a.y) / (face.noseMiddle.y - face.chin.y));
    m.pitchLow = fromNeutral(limits.pitch) * -0.0004 + 1.2;
    m.pitchHigh = fromNeutral(limits.pitch) * 0.0006 + 2.3;
    m.horizontalFill = std::abs(b.x - a.x) / (screenFactor * smallerScreenSide);
    m.minFill = static_cast<double>(limits.minFill) / 1000.0;
    m.maxFill = static_cast<double>(limits.maxFill) / 1000.0;
    m.verticalRatio = largerOverSmaller(a.y, std::abs(biggerScreenSide - a.y));
    m.verticalLimit = 1.5;
    m.horizontalMargin = std::min(a.x / smallerScreenSide, (smallerScreenSide - b.x) / smallerScreenSide);
    m.marginLimit = tallScreen ? 0.0 : 0.11;
    return m;
}

}  // namespace

FaceLimits limitsOf(const SelvioFacialCaptureParameters& parameters) {
    return {.roll = parameters.roll(),
            .pitch = parameters.pitch(),
            .yaw = parameters.yaw(),
            .minFill = parameters.minFill(),
            .maxFill = parameters.maxFill()};
}

FaceChecksResult checkFace(const FaceChecksInput& input) {
    const Landmarks face = landmarksOf(input.points);
    const FaceMeasures m = measure(face, input.limits, input.biggerScreenSide, input.smallerScreenSide);

    std::vector<SelvioFacialCaptureStatus> statuses;
    const auto addIf = [&statuses](bool wrong, SelvioFacialCaptureStatus status) {
        if (wrong) statuses.push_back(status);
    };
    addIf(m.rollRatio > m.rollLimit, SelvioFacialCaptureStatusFaceRoll);
    addIf(m.rollRatio <= m.rollLimit && m.yawRatio > m.yawLimit, SelvioFacialCaptureStatusFaceYaw);
    addIf(m.pitchRatio < m.pitchLow || m.pitchRatio > m.pitchHigh, SelvioFacialCaptureStatusFacePitch);
    addIf(m.horizontalFill < m.minFill, SelvioFacialCaptureStatusMoveCloser);
    addIf(m.horizontalFill > m.maxFill, SelvioFacialCaptureStatusTooClose);
    addIf(m.verticalRatio > m.verticalLimit, SelvioFacialCaptureStatusNotCentered);
    addIf(m.horizontalMargin < m.marginLimit, SelvioFacialCaptureStatusNotCentered);
    addIf(input.shouldHoldStill, SelvioFacialCaptureStatusHoldStill);
    std::sort(statuses.begin(), statuses.end());

    return {.measures = m,
            .noseMiddle = face.noseMiddle,
            .lipLeft = face.lipLeft,
            .lipRight = face.lipRight,
            .statuses = std::move(statuses)};
}

FacesJudgement judgeFaces(const std::vector<FaceObservation>& faces, const PreviewGeometry& geometry,
                          const FaceLimits& limits, bool shouldHoldStill) {
    if (faces.empty()) return {.count = 0, .face = {}, .statuses = {SelvioFacialCaptureStatusFaceNotFound}};
    if (faces.size() > 1)
        return {.count = faces.size(), .face = {}, .statuses = {SelvioFacialCaptureStatusMoreThanOneFace}};

    const Rect rect = geometry.faceRect(faces.front().boundingBox);
    const FaceLandmarks landmarks = faces.front().landmarks.value_or(FaceLandmarks{});
    const FacePoints points{.contour = landmarkInAdjustedRect(landmarks.faceContour, rect),
                            .nose = landmarkInAdjustedRect(landmarks.nose, rect),
                            .outerLips = landmarkInAdjustedRect(landmarks.outerLips, rect)};
    const FaceChecksResult checked = checkFace({.points = points,
                                                .limits = limits,
                                                .biggerScreenSide = geometry.biggerScreenSide,
                                                .smallerScreenSide = geometry.smallerScreenSide,
                                                .shouldHoldStill = shouldHoldStill});
    return {.count = 1,
            .face = FaceOnScreen{.rect = rect, .points = points, .checked = checked},
            .statuses = checked.statuses};
}

Expected<FacesJudgement> judgePicture(const std::shared_ptr<const PixelBuffer>& picture,
                                      SequenceRequestHandler& handler, const FaceLimits& limits) {
    constexpr std::uint32_t kUprightMirrored = 5;  // the EXIF orientation in which the checks read a portrait
    const auto found =
        handler.perform({.pixelBuffer = picture, .exifOrientation = kUprightMirrored, .isStillImage = true});
    if (!found) return found.error();
    if (found.value().error) return *found.value().error;
    const Size size{static_cast<double>(picture->width()), static_cast<double>(picture->height())};
    PreviewGeometry wholePicture;
    wholePicture.setScreen(size);
    wholePicture.setResolution(size);
    auto judged = judgeFaces(found.value().observations, wholePicture, limits, /*shouldHoldStill=*/false);
    if (judged.statuses.empty()) judged.statuses = {SelvioFacialCaptureStatusGoodFrame};
    return judged;
}

}  // namespace selvio::rules
