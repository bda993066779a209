// How a pixel buffer is turned into the upright view in which faces are sought.
#pragma once

#include <SelvioFacialCapture/imaging/Geometry.h>
#include <SelvioFacialCapture/imaging/Image.h>

#include <algorithm>
#include <cstdint>
#include <optional>

namespace selvio::hog {

/// Swaps the axes first, then mirrors. Works on coordinates normalized to 0...1 with the origin at the top left, in the
/// buffer as in the view.
struct ViewTransform {
    bool transpose = false;
    bool flipX = false;
    bool flipY = false;

    [[nodiscard]] Point toView(Point buffer) const {
        Point view = transpose ? Point{buffer.y, buffer.x} : buffer;
        if (flipX) view.x = 1.0 - view.x;
        if (flipY) view.y = 1.0 - view.y;
        return view;
    }

    [[nodiscard]] Point toBuffer(Point view) const {
        if (flipX) view.x = 1.0 - view.x;
        if (flipY) view.y = 1.0 - view.y;
        return transpose ? Point{view.y, view.x} : view;
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
    switch (exifOrientation) {
        case 1:
            return ViewTransform{true, true, false};
        case 2:
            return ViewTransform{true, true, true};
        case 3:
            return ViewTransform{true, false, true};
        case 4:
            return ViewTransform{true, false, false};
        case 5:
            return ViewTransform{false, true, false};
        case 6:
            return ViewTransform{false, true, true};
        case 7:
            return ViewTransform{false, false, true};
        case 8:
            return ViewTransform{false, false, false};
        default:
            return std::nullopt;
    }
}

/// The view of a picture as it is displayed.
[[nodiscard]] inline ViewTransform viewForImageOrientation(ImageOrientation orientation) {
    switch (orientation) {
        case ImageOrientation::Up:
            break;
        case ImageOrientation::Down:
            return {false, true, true};
        case ImageOrientation::Left:
            return {true, false, true};
        case ImageOrientation::Right:
            return {true, true, false};
        case ImageOrientation::UpMirrored:
            return {false, true, false};
        case ImageOrientation::DownMirrored:
            return {false, false, true};
        case ImageOrientation::LeftMirrored:
            return {true, false, false};
        case ImageOrientation::RightMirrored:
            return {true, true, true};
    }
    return {};
}

}  // namespace selvio::hog
