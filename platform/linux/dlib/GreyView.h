// A small grey picture cut out of a pixel buffer.
#pragma once

#include "ViewTransform.h"

#include <SelvioFacialCapture/imaging/PixelBuffer.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace selvio::hog {

/// Full-range luma, rows without gaps.
struct GreyImage {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> pixels;

    void resize(int newWidth, int newHeight) {
        width = newWidth;
        height = newHeight;
        pixels.resize(static_cast<std::size_t>(newWidth) * static_cast<std::size_t>(newHeight));
    }
};

/// Whole pixels of a buffer.
struct PixelArea {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    friend bool operator==(const PixelArea&, const PixelArea&) = default;
};

/// Makes grey views; keeps its intermediate pictures, so that a steady stream of frames allocates nothing. One thread
/// at a time.
class GreyViewMaker {
public:
    /// Cuts `area` out of the buffer, scales it down with a box filter and turns it as `view` says. `width` and
    /// `height` are the result's, that is after the turn. Every channel order gives the same luma, 420v is stretched to
    /// the full range. False, with the result unspecified, if the area is empty or not inside the buffer, a wanted side
    /// is not positive, or the buffer's format is none of the three known ones.
    [[nodiscard]] bool make(const PixelBuffer& buffer, PixelArea area, ViewTransform view, int width, int height,
                            GreyImage& result);

private:
    std::vector<std::uint8_t> colour_;
    std::vector<std::uint8_t> swapped_;
    GreyImage grey_;
    GreyImage scaled_;
};

}  // namespace selvio::hog
