// Pieces of a pixel buffer, scaled and turned, as the input of a neural network.
#pragma once

#include "platform/linux/vision/ViewTransform.h"

#include <SelvioFacialCapture/imaging/PixelBuffer.h>

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace selvio {

/// The size in pixels of the view of a buffer.
[[nodiscard]] Size viewSizeOf(const PixelBuffer& buffer, ViewTransform view);

/// A square of a view, in pixels of the full-size view; it may reach beyond the view.
struct ViewSquare {
    Point centre;
    double side = 0.0;
    double angle = 0.0;  ///< radians, clockwise as seen in the view

    /// The point of the view that lies so far from the centre along the square's own axes.
    [[nodiscard]] Point at(double right, double down) const {
        const double cosine = std::cos(angle);
        const double sine = std::sin(angle);
        return {centre.x + cosine * right - sine * down, centre.y + sine * right + cosine * down};
    }
};

/// What a network reads of the square.
struct SamplerTarget {
    std::span<float> values;  ///< side * side * 3: rows of R, G, B
    int side = 0;             ///< pixels
    float black = 0.0F;       ///< value of a channel of 0 ...
    float white = 1.0F;       ///< ... and of 255
    bool repeatEdge = false;  ///< beyond the picture: its edge repeated; otherwise black
};

/// Reads one picture at a time. Scaled-down copies are made when they are first wanted and serve everything else that
/// is read of the picture; their memory is kept for the next one. One thread at a time.
class PictureSampler {
public:
    /// The pictures that follow are `buffer`'s. It must be of one of the three known formats and outlive their reading.
    void take(const PixelBuffer& buffer, ViewTransform view);

    [[nodiscard]] Size viewSize() const { return viewSize_; }
    /// Averages as many pixels as fall on one of the target's, as far as powers of two do, and interpolates between
    /// them. What is very dark comes out brighter.
    void read(const ViewSquare& square, const SamplerTarget& target);

private:
    /// Whole pixels of the buffer, averaged in blocks of 2^level; four bytes a pixel.
    struct Copy {
        const std::uint8_t* pixels = nullptr;
        std::size_t bytesPerRow = 0;
        int width = 0;
        int height = 0;
        int left = 0;  ///< where the first block begins in the buffer
        int top = 0;
        int level = 0;
    };
    static constexpr int kMostLevels = 15;

    [[nodiscard]] Copy copyFor(const ViewSquare& square, double scale);
    [[nodiscard]] const Copy& wholeCopy(int level);
    [[nodiscard]] Copy halved420v();
    [[nodiscard]] Copy partOf420v(const ViewSquare& square);
    [[nodiscard]] Point toBuffer(Point view) const;

    const PixelBuffer* buffer_ = nullptr;
    ViewTransform view_;
    Size viewSize_;
    std::array<Copy, kMostLevels> copies_;  // by level; those of this picture have pixels
    std::array<std::vector<std::uint8_t>, kMostLevels> memory_;
    std::array<std::vector<std::uint8_t>, 3> planes_;
};

}  // namespace selvio
