// Pictures that tests paint, and their samples: four bytes of a packed picture; one of luma or two of colour where the
// planes are apart.
#pragma once

#include <SelvioFacialCapture/imaging/PixelBuffer.h>

#include <cstring>
#include <memory>

namespace selvio {

inline std::size_t sampleSize(const PixelBuffer& buffer, int plane = 0) {
    return buffer.planeCount() == 1 ? 4 : plane == 0 ? 1 : 2;
}

/// The first byte of a sample.
template <typename Buffer>
auto* sampleAt(Buffer& buffer, int x, int y, int plane = 0) {
    return buffer.data(plane) + static_cast<std::size_t>(y) * buffer.bytesPerRow(plane) +
           static_cast<std::size_t>(x) * sampleSize(buffer, plane);
}

/// A picture whose every sample was given to `paint(sample, x, y, plane)`.
template <typename Paint>
std::shared_ptr<PixelBuffer> painted(int width, int height, PixelFormat format, Paint paint) {
    auto buffer = PixelBuffer::create(width, height, format);
    for (int plane = 0; plane < buffer->planeCount(); ++plane) {
        const PlaneLayout& layout = buffer->layout().planes[static_cast<std::size_t>(plane)];
        std::memset(buffer->data(plane), 0xEE,
                    layout.bytesPerRow * static_cast<std::size_t>(layout.height));  // the padding
        for (int y = 0; y < layout.height; ++y) {
            for (int x = 0; x < layout.width; ++x) paint(sampleAt(*buffer, x, y, plane), x, y, plane);
        }
    }
    return buffer;
}

}  // namespace selvio
