#include <SelvioFacialCapture/rules/PreviewGeometry.h>

#include <algorithm>
#include <cmath>

namespace selvio::rules {
namespace {

double roundToTwoDecimals(double value) {  // halves away from zero
    return std::round(value * 100.0) / 100.0;
}

}  // namespace

void PreviewGeometry::setScreen(Size size) {
    biggerScreenSide = std::max(size.width, size.height);
    smallerScreenSide = std::min(size.width, size.height);
}

void PreviewGeometry::setResolution(Size size) {
    resolution = size;
    if (size == Size{}) return;
    biggerPreviewSide = std::max(size.width, size.height);
    smallerPreviewSide = std::min(size.width, size.height);
    if (biggerScreenSide <= 0.0 || smallerScreenSide <= 0.0) return;

    const double previewRatio = biggerPreviewSide / smallerPreviewSide;
    const double roundedPreviewRatio = roundToTwoDecimals(previewRatio);
    const double roundedScreenRatio = roundToTwoDecimals(biggerScreenSide / smallerScreenSide);
    if (roundedScreenRatio > roundedPreviewRatio) {
        xAdjuster = (biggerScreenSide / previewRatio - smallerScreenSide) * 0.5;
        wAdjuster = previewRatio * smallerScreenSide / biggerScreenSide;
    } else if (roundedPreviewRatio > roundedScreenRatio) {
        yAdjuster = (previewRatio * smallerScreenSide - biggerScreenSide) * 0.5;
        hAdjuster = biggerScreenSide / (previewRatio * smallerScreenSide);
    }
}

Rect PreviewGeometry::faceRect(const Rect& boundingBox) const {
    return {
        .x = boundingBox.y / wAdjuster * smallerScreenSide - xAdjuster,
        .y = boundingBox.x / hAdjuster * biggerScreenSide - yAdjuster,
        .width = boundingBox.height / wAdjuster * smallerScreenSide,
        .height = boundingBox.width / hAdjuster * biggerScreenSide,
    };
}

std::optional<std::vector<Point>> landmarkInAdjustedRect(const std::optional<FaceLandmarkRegion>& region,
                                                         const Rect& rect) {
    if (!region) return std::nullopt;
    std::vector<Point> points;
    points.reserve(region->normalizedPoints.size());
    for (const Point& point : region->normalizedPoints)
        points.push_back({.x = rect.x + point.y * rect.width, .y = rect.y + point.x * rect.height});
    return points;
}

}  // namespace selvio::rules
