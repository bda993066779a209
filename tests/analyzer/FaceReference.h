// The geometry and the face checks a second time, written on their own: what the component's are compared with.
#pragma once

#include <SelvioFacialCapture/platform/FaceLandmarks.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace selvio::reference {

using Points = std::optional<std::vector<Point>>;

struct Screen {
    Size resolution{};
    double big = 0, small = 0;                // points
    double previewBig = 0, previewSmall = 0;  // pixels
    double w = 1, h = 1, x = 0, y = 0;        // what is cropped away

    void show(Size size) {
        big = size.width < size.height ? size.height : size.width;
        small = size.width < size.height ? size.width : size.height;
    }
    void setResolution(Size size) {
        resolution = size;
        if (size.width == 0 && size.height == 0) return;
        previewBig = size.width < size.height ? size.height : size.width;
        previewSmall = size.width < size.height ? size.width : size.height;
        if (!(big > 0) || !(small > 0)) return;
        const double image = previewBig / previewSmall;
        const double screen = big / small;
        const auto hundredths = [](double v) { return std::round(v * 100); };
        if (hundredths(screen) > hundredths(image)) {
            x = (big / image - small) * 0.5;
            w = image * small / big;
        } else if (hundredths(image) > hundredths(screen)) {
            y = (image * small - big) * 0.5;
            h = big / (image * small);
        }
    }
    [[nodiscard]] Rect faceRect(const Rect& box) const {
        return {box.y / w * small - x, box.x / h * big - y, box.height / w * small, box.width / h * big};
    }
    [[nodiscard]] static Points inRect(const std::optional<FaceLandmarkRegion>& region, const Rect& r) {
        if (!region) return std::nullopt;
        std::vector<Point> mapped;
        for (const auto& [down, across] : region->normalizedPoints)
            mapped.push_back({r.x + across * r.width, r.y + down * r.height});
        return mapped;
    }
};

struct Strictness {
    std::int64_t roll = 500, pitch = 500, yaw = 500, minFill = 550, maxFill = 725;
};

struct Verdict {
    std::vector<std::int64_t> statuses;
    Point noseMiddle, lipLeft, lipRight;
    double roll = 0, yaw = 0, pitch = 0, fill = 0, vertical = 0, margin = 0;  // what was measured
    double rollLimit = 0, yawLimit = 0, pitchLow = 0, pitchHigh = 0, marginLimit = 0;
};

inline Verdict judge(const Points& contour, const Points& nose, const Points& lips, const Strictness& strictness,
                     double big, double small, bool moving) {
    const auto at = [](const Points& points, std::size_t i) {
        return points && i < points->size() ? (*points)[i] : Point{};
    };
    const auto larger = [](double a, double b) { return a > b ? a / b : b / a; };  // the larger over the smaller
    const bool newer = contour && contour->size() == 17;
    const bool newerLips = lips && lips->size() == 14;
    const Point a = at(contour, newer ? 16 : 0), b = at(contour, newer ? 0 : 10), chin = at(contour, newer ? 8 : 5);
    const Point middle = at(nose, 4);
    const auto lenient = [](std::int64_t value) { return static_cast<double>(500 - value); };
    const bool tall = big / small > 1.78;

    Verdict v;
    v.noseMiddle = middle;
    v.lipLeft = at(lips, newerLips ? 13 : 9);
    v.lipRight = at(lips, newerLips ? 7 : 5);
    v.roll = larger(a.y, b.y);
    v.rollLimit = lenient(strictness.roll) * 0.0005 + 1.25;
    v.yaw = larger(std::fabs(at(nose, 6).x - middle.x), std::fabs(at(nose, 2).x - middle.x));
    v.yawLimit = lenient(strictness.yaw) * 0.001 + 1.8;
    v.pitch = std::fabs((chin.y - a.y) / (middle.y - chin.y));
    v.pitchLow = lenient(strictness.pitch) * -0.0004 + 1.2;
    v.pitchHigh = lenient(strictness.pitch) * 0.0006 + 2.3;
    v.fill = std::fabs(b.x - a.x) / ((tall ? 1.218 : 1.0) * small);
    v.vertical = larger(a.y, std::fabs(big - a.y));
    v.margin = std::min(a.x / small, (small - b.x) / small);
    v.marginLimit = tall ? 0.0 : 0.11;

    const auto add = [&](bool wrong, std::int64_t status) {
        if (wrong) v.statuses.push_back(status);
    };
    add(v.roll > v.rollLimit, 3);
    add(v.pitch < v.pitchLow || v.pitch > v.pitchHigh, 4);
    add(v.roll <= v.rollLimit && v.yaw > v.yawLimit, 5);
    add(v.fill < static_cast<double>(strictness.minFill) / 1000, 6);
    add(v.fill > static_cast<double>(strictness.maxFill) / 1000, 7);
    add(v.vertical > 1.5, 8);
    add(v.margin < v.marginLimit, 8);
    add(moving, 9);
    return v;
}

}  // namespace selvio::reference
