#include "imaging/PixelConversion.h"

#include <SelvioFacialCapture/imaging/Image.h>

#include <algorithm>
#include <cstring>

namespace selvio {
namespace {

std::uint8_t clampedToByte(int value) {
    return static_cast<std::uint8_t>(std::clamp(value, 0, 255));
}

/// Places of the four channels within a 32-bit pixel.
struct ChannelOrder {
    std::size_t blue, green, red, alpha;
};

constexpr ChannelOrder kOrderBGRA{0, 1, 2, 3};
constexpr ChannelOrder kOrderARGB{3, 2, 1, 0};

/// One row of BT.601 video range to RGB, in 16.16 fixed point: 255/219 for Y, the colour factors times 255/224.
template <ChannelOrder kOrder>
void rowFrom420v(const std::uint8_t* y, const std::uint8_t* cbcr, int width, std::uint8_t* out) {
    constexpr int kLuma = 76309, kRedCr = 104597, kGreenCb = 25675, kGreenCr = 53279, kBlueCb = 132201, kHalf = 1 << 15;
    for (int x = 0; x < width; ++x) {
        const int luma = kLuma * (y[x] - 16) + kHalf;
        const int cb = cbcr[x / 2 * 2] - 128;
        const int cr = cbcr[x / 2 * 2 + 1] - 128;
        std::uint8_t* const pixel = out + static_cast<std::ptrdiff_t>(x) * 4;
        pixel[kOrder.blue] = clampedToByte((luma + kBlueCb * cb) >> 16);
        pixel[kOrder.green] = clampedToByte((luma - kGreenCb * cb - kGreenCr * cr) >> 16);
        pixel[kOrder.red] = clampedToByte((luma + kRedCr * cr) >> 16);
        pixel[kOrder.alpha] = 255;
    }
}

void rowReversingChannels(const std::uint8_t* in, int width, std::uint8_t* out) {
    for (std::ptrdiff_t i = 0; i < static_cast<std::ptrdiff_t>(width) * 4; i += 4) {
        out[i] = in[i + 3];
        out[i + 1] = in[i + 2];
        out[i + 2] = in[i + 1];
        out[i + 3] = in[i];
    }
}

}  // namespace

std::shared_ptr<PixelBuffer> convertedTo32(const PixelBuffer& source, PixelFormat target) {
    if (!source.isReadable() || (target != kPixelFormat32ARGB && target != kPixelFormat32BGRA)) return nullptr;
    auto result = PixelBuffer::create(source.width(), source.height(), target);
    if (!result) return nullptr;
    const auto row = [](auto& buffer, int plane, int y) {
        return buffer.data(plane) + buffer.bytesPerRow(plane) * static_cast<std::size_t>(y);
    };
    const int width = source.width();
    for (int y = 0; y < source.height(); ++y) {
        std::uint8_t* const out = row(*result, 0, y);
        if (source.format() == kPixelFormat420v) {
            const auto convert = target == kPixelFormat32ARGB ? rowFrom420v<kOrderARGB> : rowFrom420v<kOrderBGRA>;
            convert(row(source, 0, y), row(source, 1, y / 2), width, out);
        } else if (source.format() == target) {
            std::memcpy(out, row(source, 0, y), source.layout().rowBytes());
        } else {
            rowReversingChannels(row(source, 0, y), width, out);
        }
    }
    return result;
}

std::shared_ptr<PixelBuffer> turned(const PixelBuffer& source, Turn turn) {
    if (!source.isReadable()) return nullptr;
    auto result = PixelBuffer::create(turn.turnedWidth(source.width(), source.height()),
                                      turn.turnedHeight(source.width(), source.height()), source.format());
    if (!result) return nullptr;
    const auto turnPlane = [&]<std::size_t kSampleSize>(int plane) {
        const PlaneLayout& in = source.layout().planes[static_cast<std::size_t>(plane)];
        const auto target =
            TurnedPlane::make(turn, in.width, in.height, kSampleSize, result->data(plane), result->bytesPerRow(plane));
        copyTurned<kSampleSize>(source.data(plane), in.bytesPerRow, in.width, 0, in.height, target);
    };
    if (source.format() == kPixelFormat420v) {
        turnPlane.operator()<1>(0);
        turnPlane.operator()<2>(1);
    } else {
        turnPlane.operator()<4>(0);
    }
    return result;
}

std::shared_ptr<PixelBuffer> turnedUpright(const PixelBuffer& stored, int exifOrientation) {
    return turned(stored, Turn::fromExif(exifOrientation));
}

PixelBufferLayout layoutOfCopy(const PixelBuffer& source) {
    const PixelBufferLayout& layout = source.layout();
    const auto compact = *PixelBufferLayout::make(layout.width, layout.height, layout.format);
    return layout.byteSize() > compact.byteSize() ? compact : layout;
}

void copyPixels(const PixelBuffer& source, PixelBuffer& target) {
    const PixelBufferLayout& layout = source.layout();
    for (int plane = 0; plane < layout.planeCount; ++plane) {
        const std::uint8_t* from = source.data(plane);
        std::uint8_t* to = target.data(plane);
        if (layout == target.layout()) {
            std::memcpy(to, from, layout.planeBytes(plane));
            continue;
        }
        for (int row = 0; row < layout.planes[static_cast<std::size_t>(plane)].height; ++row) {
            std::memcpy(to, from, layout.rowBytes(plane));
            from += source.bytesPerRow(plane);
            to += target.bytesPerRow(plane);
        }
    }
}

}  // namespace selvio
