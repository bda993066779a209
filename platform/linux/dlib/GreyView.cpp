#include "GreyView.h"

#include <libyuv/convert_argb.h>
#include <libyuv/convert_from_argb.h>
#include <libyuv/planar_functions.h>
#include <libyuv/rotate.h>
#include <libyuv/scale.h>
#include <libyuv/scale_argb.h>

#include <array>

namespace selvio::hog {
namespace {

/// Stretches video-range luma (16...235) to 0...255.
const std::array<std::uint8_t, 256>& fullRangeTable() {
    static const auto table = [] {
        std::array<std::uint8_t, 256> result{};
        for (int value = 0; value < 256; ++value) {
            const int stretched = ((value - 16) * 255 + 109) / 219;
            result[static_cast<std::size_t>(value)] = static_cast<std::uint8_t>(stretched < 0     ? 0
                                                                                : stretched > 255 ? 255
                                                                                                  : stretched);
        }
        return result;
    }();
    return table;
}

bool contains(const PixelBuffer& buffer, const PixelArea& area) {
    return area.x >= 0 && area.y >= 0 && area.width > 0 && area.height > 0 && area.width <= buffer.width() - area.x &&
           area.height <= buffer.height() - area.y;
}

const std::uint8_t* at(const std::uint8_t* plane, std::size_t bytesPerRow, const PixelArea& area,
                       std::size_t bytesPerPixel) {
    return plane + static_cast<std::size_t>(area.y) * bytesPerRow + static_cast<std::size_t>(area.x) * bytesPerPixel;
}

/// Turns without scaling; the sizes of `target` are already those after the turn.
void turn(const GreyImage& source, ViewTransform view, GreyImage& target) {
    const std::uint8_t* from = source.pixels.data();
    std::uint8_t* to = target.pixels.data();
    const int width = source.width;
    const int height = source.height;
    const std::uint8_t* const lastRow = from + static_cast<std::ptrdiff_t>(width) * (height - 1);
    if (view.transpose) {
        // Reading the rows upwards mirrors the result; writing its rows upwards flips it.
        const int targetStride = height;
        std::uint8_t* const lastTargetRow = to + static_cast<std::ptrdiff_t>(targetStride) * (width - 1);
        libyuv::TransposePlane(view.flipX ? lastRow : from, view.flipX ? -width : width,
                               view.flipY ? lastTargetRow : to, view.flipY ? -targetStride : targetStride, width,
                               height);
        return;
    }
    const std::uint8_t* const first = view.flipY ? lastRow : from;
    const int stride = view.flipY ? -width : width;
    if (view.flipX) {
        libyuv::MirrorPlane(first, stride, to, width, width, height);
    } else {
        libyuv::CopyPlane(first, stride, to, width, width, height);
    }
}

}  // namespace

bool GreyViewMaker::make(const PixelBuffer& buffer, PixelArea area, ViewTransform view, int width, int height,
                         GreyImage& result) {
    if (width <= 0 || height <= 0 || !contains(buffer, area)) return false;
    const bool turned = view != ViewTransform{};
    GreyImage& scaled = turned ? scaled_ : result;
    scaled.resize(view.transpose ? height : width, view.transpose ? width : height);

    const std::size_t bytesPerRow = buffer.bytesPerRow(0);
    const auto stride = static_cast<int>(bytesPerRow);
    if (buffer.format() == kPixelFormat420v) {
        libyuv::ScalePlane(at(buffer.data(0), bytesPerRow, area, 1), stride, area.width, area.height,
                           scaled.pixels.data(), scaled.width, scaled.width, scaled.height, libyuv::kFilterBox);
        for (std::uint8_t& value : scaled.pixels) value = fullRangeTable()[value];
    } else if (buffer.format() == kPixelFormat32BGRA || buffer.format() == kPixelFormat32ARGB) {
        // Halve in colour while that keeps enough pixels: halving is cheap and averages, and greying the small picture
        // is cheaper than the large one.
        int factor = 1;
        while (factor < 4 && area.width / (factor * 2) >= scaled.width && area.height / (factor * 2) >= scaled.height)
            factor *= 2;
        const std::uint8_t* colour = at(buffer.data(0), bytesPerRow, area, 4);
        int colourStride = stride;
        grey_.resize(area.width / factor, area.height / factor);
        if (factor > 1) {
            // Whole blocks only: at most three pixels at the right and lower edge stay out.
            colour_.resize(grey_.pixels.size() * 4);
            libyuv::ARGBScale(colour, stride, grey_.width * factor, grey_.height * factor, colour_.data(),
                              grey_.width * 4, grey_.width, grey_.height, libyuv::kFilterBox);
            colour = colour_.data();
            colourStride = grey_.width * 4;
        }
        if (buffer.format() == kPixelFormat32ARGB) {
            swapped_.resize(grey_.pixels.size() * 4);
            // libyuv names byte orders from the highest byte down: its BGRA is A, R, G, B in memory.
            libyuv::BGRAToARGB(colour, colourStride, swapped_.data(), grey_.width * 4, grey_.width, grey_.height);
            colour = swapped_.data();
            colourStride = grey_.width * 4;
        }
        libyuv::ARGBToJ400(colour, colourStride, grey_.pixels.data(), grey_.width, grey_.width, grey_.height);
        libyuv::ScalePlane(grey_.pixels.data(), grey_.width, grey_.width, grey_.height, scaled.pixels.data(),
                           scaled.width, scaled.width, scaled.height, libyuv::kFilterBox);
    } else {
        return false;
    }
    if (turned) {
        result.resize(width, height);
        turn(scaled, view, result);
    }
    return true;
}

}  // namespace selvio::hog
