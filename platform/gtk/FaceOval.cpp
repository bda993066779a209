#include "platform/gtk/FaceOval.h"

#include <algorithm>

namespace selvio {
namespace {

// Of a face's width at the ears: how far the hairline is above them and the chin below.
constexpr double kAbove = 0.65;
constexpr double kBelow = 0.79;

}  // namespace

FaceOval faceOvalFor(const rules::FaceLimits& limits, Size screen) {
    const double width = std::min(screen.width, screen.height);
    const double height = std::max(screen.width, screen.height);
    // What the checks measure on a face as wide as the screen shows how they count widths and margins on this screen.
    std::vector<Point> contour(17, Point{0.0, height / 2});
    contour.front().x = width;
    const auto whole = rules::checkFace({.points = {.contour = contour, .nose = {}, .outerLips = {}},
                                         .limits = limits,
                                         .biggerScreenSide = height,
                                         .smallerScreenSide = width})
                           .measures;
    const double largest = std::min(whole.maxFill, (1.0 - 2.0 * whole.marginLimit) * whole.horizontalFill);
    const double fill = largest > whole.minFill ? (whole.minFill + largest) / 2.0 : largest;
    const double faceWidth = fill / whole.horizontalFill * width;
    return {.middle = {width / 2.0, height / 2.0},
            .halfWidth = faceWidth / 2.0,
            .above = kAbove * faceWidth,
            .below = kBelow * faceWidth};
}

}  // namespace selvio
