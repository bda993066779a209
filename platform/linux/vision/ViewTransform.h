// How a pixel buffer is turned into the upright view in which faces are sought.
#pragma once

#include <SelvioFacialCapture/imaging/Geometry.h>
#include <SelvioFacialCapture/imaging/Image.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>

namespace selvio {

/// Swaps the axes first, then mirrors. Works on coordinates normalized to 0...1 with the origin at the top left, in the
/// buffer as in the view.
struct ViewTransform : Turn {
    [[nodiscard]] Point toView(Point buffer) const {
        Point view = swapsAxes ? Point{buffer.y, buffer.x} : buffer;
        if (reversesX) view.x = 1.0 - view.x;
        if (reversesY) view.y = 1.0 - view.y;
        return view;
    }

    [[nodiscard]] Point toBuffer(Point view) const {
        if (reversesX) view.x = 1.0 - view.x;
        if (reversesY) view.y = 1.0 - view.y;
        return swapsAxes ? Point{view.y, view.x} : view;
    }

    [[nodiscard]] Rect toView(const Rect& buffer) const {
        return spanning(toView(Point{buffer.x, buffer.y}),
                        toView(Point{buffer.x + buffer.width, buffer.y + buffer.height}));
    }

    [[nodiscard]] Rect toBuffer(const Rect& view) const {
        return spanning(toBuffer(Point{view.x, view.y}), toBuffer(Point{view.x + view.width, view.y + view.height}));
    }

    friend bool operator==(const ViewTransform&, const ViewTransform&) = default;

private:
    static Rect spanning(Point p, Point q) {
        const double left = std::min(p.x, q.x);
        const double top = std::min(p.y, q.y);
        return {left, top, std::max(p.x, q.x) - left, std::max(p.y, q.y) - top};
    }
};

/// The view for a frame and its EXIF orientation, such that a point (x, y) of the detector (the frame with the
/// orientation applied, origin at the lower left) lies at (y, x) of the view. For the orientations of a front camera
/// (5, 7, 4, 2) the view is upright and mirrored as in a mirror. Nothing outside 1...8.
[[nodiscard]] inline std::optional<ViewTransform> viewForExifOrientation(std::uint32_t exifOrientation) {
    if (exifOrientation < 1 || exifOrientation > 8) return std::nullopt;
    constexpr std::array kDisplayedAs{6, 7, 8, 5, 2, 3, 4, 1};
    return ViewTransform{Turn::fromExif(kDisplayedAs[exifOrientation - 1])};
}

/// The view of a picture as it is displayed.
[[nodiscard]] inline ViewTransform viewForImageOrientation(ImageOrientation orientation) {
    return ViewTransform{Turn::fromExif(static_cast<int>(exifOrientationFor(orientation)))};
}

}  // namespace selvio
