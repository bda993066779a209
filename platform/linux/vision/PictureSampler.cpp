#include "platform/linux/vision/PictureSampler.h"

#include <libyuv/convert_argb.h>
#include <libyuv/planar_functions.h>
#include <libyuv/scale.h>
#include <libyuv/scale_argb.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

namespace selvio {
namespace {

/// Coordinates and steps in 1/65536 of a pixel.
struct Fixed {
    std::int64_t x = 0;
    std::int64_t y = 0;

    static Fixed from(Point p) {
        const auto fixed = [](double value) { return std::llround(value * 65536.0); };
        return {fixed(p.x), fixed(p.y)};
    }
    [[nodiscard]] Fixed plus(Fixed step, std::int64_t times) const { return {x + step.x * times, y + step.y * times}; }
};

/// Where the bytes of R, G and B stand in a pixel.
std::array<std::size_t, 3> channelsOf(PixelFormat format) {
    using Places = std::array<std::size_t, 3>;
    return format == kPixelFormat32ARGB ? Places{1, 2, 3} : Places{2, 1, 0};
}

/// The weighted mean of four neighbours.
class Interpolator {
public:
    Interpolator(const std::uint8_t* pixels, std::size_t bytesPerRow, std::array<std::size_t, 3> channels,
                 const SamplerTarget& target)
        : pixels_(pixels),
          bytesPerRow_(bytesPerRow),
          channels_(channels),
          scale_((target.white - target.black) / (255.0F * 65536.0F)),
          black_(target.black) {}

    /// `right` and `below` are the distances in bytes to the neighbours.
    void write(int x, int y, std::size_t right, std::size_t below, float* rgb) const {
        const std::uint8_t* const p =
            pixels_ + static_cast<std::size_t>(y >> 16) * bytesPerRow_ + static_cast<std::size_t>(x >> 16) * 4;
        const auto shareX = static_cast<std::uint64_t>(x >> 8 & 255);
        const auto shareY = static_cast<std::uint64_t>(y >> 8 & 255);
        // Four channels at once, in 16 and then in 32 bits each: nothing overflows, nothing is rounded.
        const auto upper = spread(p) * (256 - shareX) + spread(p + right) * shareX;
        const auto lower = spread(p + below) * (256 - shareX) + spread(p + below + right) * shareX;
        constexpr std::uint64_t kEven = 0x0000FFFF0000FFFF;
        const auto even = (upper & kEven) * (256 - shareY) + (lower & kEven) * shareY;
        const auto odd = (upper >> 16 & kEven) * (256 - shareY) + (lower >> 16 & kEven) * shareY;
        const std::array sums{static_cast<std::int32_t>(even), static_cast<std::int32_t>(odd),
                              static_cast<std::int32_t>(even >> 32), static_cast<std::int32_t>(odd >> 32)};
        for (std::size_t i = 0; i < 3; ++i) rgb[i] = static_cast<float>(sums[channels_[i]]) * scale_ + black_;
    }

private:
    /// The four bytes of a pixel, 16 bits apart.
    static std::uint64_t spread(const std::uint8_t* pixel) {
        static_assert(std::endian::native == std::endian::little);
        std::uint32_t bytes = 0;
        std::memcpy(&bytes, pixel, sizeof bytes);
        const std::uint64_t pairs = (bytes | std::uint64_t{bytes} << 16) & 0x0000FFFF0000FFFF;
        return (pairs | pairs << 8) & 0x00FF00FF00FF00FF;
    }

    const std::uint8_t* const pixels_;
    const std::size_t bytesPerRow_;
    const std::array<std::size_t, 3> channels_;
    const float scale_;
    const float black_;
};

/// Makes a dark picture brighter: the networks know little of what lies below.
void brighten(const SamplerTarget& target) {
    constexpr double kLeastMean = 0.06;  // of white
    constexpr double kMostGain = 4.0;
    constexpr std::size_t kStep = 31;  // few values say as much as all; prime to the row, so that they are spread
    double sum = 0.0;
    std::size_t count = 0;
    for (std::size_t i = 0; i < target.values.size(); i += kStep, ++count)
        sum += static_cast<double>(target.values[i] - target.black);
    const double mean = sum / static_cast<double>(count) / static_cast<double>(target.white - target.black);
    const auto gain = static_cast<float>(std::min(kMostGain, kLeastMean / std::max(mean, 1e-6)));
    if (gain <= 1.0F) return;
    for (float& value : target.values) value = std::min(target.white, target.black + gain * (value - target.black));
}

}  // namespace

Size viewSizeOf(const PixelBuffer& buffer, ViewTransform view) {
    const Size size{static_cast<double>(buffer.width()), static_cast<double>(buffer.height())};
    return view.swapsAxes ? Size{size.height, size.width} : size;
}

void PictureSampler::take(const PixelBuffer& buffer, ViewTransform view) {
    buffer_ = &buffer;
    view_ = view;
    viewSize_ = viewSizeOf(buffer, view);
    copies_.fill({});
    if (buffer.format() != kPixelFormat420v) {
        copies_[0] = {buffer.data(0), buffer.bytesPerRow(0), buffer.width(), buffer.height(), 0, 0, 0};
    }
}

Point PictureSampler::toBuffer(Point view) const {
    const Point p = view_.toBuffer(Point{view.x / viewSize_.width, view.y / viewSize_.height});
    return {p.x * buffer_->width(), p.y * buffer_->height()};
}

const PictureSampler::Copy& PictureSampler::wholeCopy(int level) {
    auto& copy = copies_[static_cast<std::size_t>(level)];
    if (copy.pixels) return copy;
    if (level == 1 && buffer_->format() == kPixelFormat420v) return copy = halved420v();
    const Copy& larger = wholeCopy(level - 1);
    auto& memory = memory_[static_cast<std::size_t>(level)];
    // Whole blocks only: one pixel at the right and at the lower edge may stay out.
    const int width = larger.width / 2;
    const int height = larger.height / 2;
    const auto bytesPerRow = static_cast<std::size_t>(width) * 4;
    memory.resize(bytesPerRow * static_cast<std::size_t>(height));
    libyuv::ARGBScale(larger.pixels, static_cast<int>(larger.bytesPerRow), width * 2, height * 2, memory.data(),
                      width * 4, width, height, libyuv::kFilterBox);
    return copy = {memory.data(), bytesPerRow, width, height, 0, 0, level};
}

/// Brightness is halved; colour has that size already.
PictureSampler::Copy PictureSampler::halved420v() {
    const int width = buffer_->width() / 2;
    const int height = buffer_->height() / 2;
    const std::size_t pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    for (auto& plane : planes_) plane.resize(pixels);
    memory_[1].resize(pixels * 4);
    libyuv::ScalePlane(buffer_->data(0), static_cast<int>(buffer_->bytesPerRow(0)), width * 2, height * 2,
                       planes_[0].data(), width, width, height, libyuv::kFilterBox);
    libyuv::SplitUVPlane(buffer_->data(1), static_cast<int>(buffer_->bytesPerRow(1)), planes_[1].data(), width,
                         planes_[2].data(), width, width, height);
    libyuv::I444ToARGB(planes_[0].data(), width, planes_[1].data(), width, planes_[2].data(), width, memory_[1].data(),
                       width * 4, width, height);
    return {memory_[1].data(), static_cast<std::size_t>(width) * 4, width, height, 0, 0, 1};
}

PictureSampler::Copy PictureSampler::partOf420v(const ViewSquare& square) {
    // No corner of the square is farther away than this, nor its neighbours.
    const double reach = square.side * 0.7072 + 2.0;
    const Point centre = toBuffer(square.centre);
    const auto span = [&](double middle, int limit) {
        const int first = static_cast<int>(std::clamp(middle - reach, 0.0, limit - 1.0)) / 2 * 2;
        const int end = static_cast<int>(std::clamp(middle + reach, first + 1.0, static_cast<double>(limit)));
        return std::pair(first, end - first);
    };
    const auto [left, width] = span(centre.x, buffer_->width());
    const auto [top, height] = span(centre.y, buffer_->height());
    const auto bytesPerRow = static_cast<std::size_t>(width) * 4;
    memory_[0].resize(bytesPerRow * static_cast<std::size_t>(height));
    const auto x = static_cast<std::size_t>(left);
    const auto y = static_cast<std::size_t>(top);
    libyuv::NV12ToARGB(buffer_->data(0) + y * buffer_->bytesPerRow(0) + x, static_cast<int>(buffer_->bytesPerRow(0)),
                       buffer_->data(1) + y / 2 * buffer_->bytesPerRow(1) + x,
                       static_cast<int>(buffer_->bytesPerRow(1)), memory_[0].data(), width * 4, width, height);
    return {memory_[0].data(), bytesPerRow, width, height, left, top, 0};
}

/// `scale`: pixels of the buffer a pixel of the target.
PictureSampler::Copy PictureSampler::copyFor(const ViewSquare& square, double scale) {
    // A little enlargement costs less than it saves.
    constexpr double kLeastScale = 0.8;
    const int shorter = std::min(buffer_->width(), buffer_->height());
    int level = 0;
    while (level + 1 < kMostLevels && scale / (2 << level) >= kLeastScale && shorter >> (level + 1) >= 1) ++level;
    if (level == 0 && buffer_->format() == kPixelFormat420v) return partOf420v(square);
    return wholeCopy(level);
}

void PictureSampler::read(const ViewSquare& square, const SamplerTarget& target) {
    const int n = target.side;
    const double scale = square.side / n;
    const Copy copy = copyFor(square, scale);
    const double block = 1 << copy.level;
    // From the middles of the target's pixels to those of the copy's.
    const auto inCopy = [&](double u, double v) {
        const Point p = toBuffer(square.at((u + 0.5 - n / 2.0) * scale, (v + 0.5 - n / 2.0) * scale));
        return Point{(p.x - copy.left) / block - 0.5, (p.y - copy.top) / block - 0.5};
    };
    const Point first = inCopy(0, 0);
    const Point nextInRow = inCopy(1, 0);
    const Point nextRow = inCopy(0, 1);
    const Fixed step = Fixed::from({nextInRow.x - first.x, nextInRow.y - first.y});
    const Interpolator interpolator(copy.pixels, copy.bytesPerRow, channelsOf(buffer_->format()), target);

    // What four pixels surround, and what lies on the picture at all.
    const std::int64_t lastX = (static_cast<std::int64_t>(copy.width - 1) << 16) - 1;
    const std::int64_t lastY = (static_cast<std::int64_t>(copy.height - 1) << 16) - 1;
    const auto within = [](std::int64_t value, std::int64_t least, std::int64_t most) {
        return value >= least && value <= most;
    };
    constexpr std::int64_t kHalf = 1 << 15;
    float* rgb = target.values.data();
    for (int v = 0; v < n; ++v) {
        Fixed at = Fixed::from({first.x + (nextRow.x - first.x) * v, first.y + (nextRow.y - first.y) * v});
        const Fixed end = at.plus(step, n - 1);
        if (within(at.x, 0, lastX) && within(end.x, 0, lastX) && within(at.y, 0, lastY) && within(end.y, 0, lastY)) {
            auto x = static_cast<int>(at.x);
            auto y = static_cast<int>(at.y);
            for (int u = 0; u < n; ++u, rgb += 3) {
                interpolator.write(x, y, 4, copy.bytesPerRow, rgb);
                x += static_cast<int>(step.x);
                y += static_cast<int>(step.y);
            }
            continue;
        }
        for (int u = 0; u < n; ++u, rgb += 3, at = at.plus(step, 1)) {
            if (!target.repeatEdge && !(within(at.x, -kHalf, lastX + kHalf) && within(at.y, -kHalf, lastY + kHalf))) {
                std::fill_n(rgb, 3, target.black);
                continue;
            }
            const std::int64_t x = std::clamp<std::int64_t>(at.x, 0, lastX + 1);
            const std::int64_t y = std::clamp<std::int64_t>(at.y, 0, lastY + 1);
            interpolator.write(static_cast<int>(x), static_cast<int>(y), x > lastX ? 0 : 4,
                               y > lastY ? 0 : copy.bytesPerRow, rgb);
        }
    }
    brighten(target);
}

}  // namespace selvio
