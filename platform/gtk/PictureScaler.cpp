#include "platform/gtk/PictureScaler.h"

#include <SelvioFacialCapture/rules/PreviewGeometry.h>

#include <libyuv.h>

#include <algorithm>
#include <cmath>

namespace selvio {
namespace {

// Fine enough to show that there is somebody, too coarse to show who.
constexpr int kUnreadableWidth = 12;

int stride(const PixelBuffer& buffer, int plane = 0) {
    return static_cast<int>(buffer.bytesPerRow(plane));
}

/// The middle part of a frame that a screen shows, which the frame fills: width and height, in the frame's pixels.
Size visiblePart(Size frame, Size screen) {
    if (frame.width > frame.height)  // the rules know upright frames only
        return {std::min(frame.width, frame.height * screen.width / screen.height), frame.height};
    rules::PreviewGeometry geometry;
    geometry.setScreen(screen);
    geometry.setResolution(frame);
    return {frame.width * geometry.wAdjuster, frame.height * geometry.hAdjuster};
}

}  // namespace

std::shared_ptr<const PixelBuffer> PictureScaler::scaled(const PixelBuffer& frame, const PictureRequest& request) {
    const auto layout = PixelBufferLayout::make(request.width, request.height, kPixelFormat32BGRA);
    if (!layout || !frame.isReadable()) return nullptr;
    auto picture = pool_->acquire(*layout);
    if (!picture) return nullptr;
    if (!request.unreadable) return scaleInto(*picture, frame, request) ? picture : nullptr;

    auto coarse = request;
    coarse.unreadable = false;
    coarse.width = kUnreadableWidth;
    coarse.height = std::max(1, kUnreadableWidth * request.height / request.width);
    const auto few = PixelBuffer::create(coarse.width, coarse.height, kPixelFormat32BGRA);
    if (!few || !scaleInto(*few, frame, coarse)) return nullptr;
    libyuv::ARGBScale(few->data(), stride(*few), few->width(), few->height(), picture->data(), stride(*picture),
                      picture->width(), picture->height(), libyuv::kFilterBilinear);
    return picture;
}

bool PictureScaler::scaleInto(PixelBuffer& picture, const PixelBuffer& frame, const PictureRequest& request) {
    const Size part =
        visiblePart({static_cast<double>(frame.width()), static_cast<double>(frame.height())}, request.screen);
    const int width = std::clamp(static_cast<int>(std::lround(part.width)), 1, frame.width());
    const int height = std::clamp(static_cast<int>(std::lround(part.height)), 1, frame.height());
    const int x = (frame.width() - width) / 2 & ~1;  // colour comes in pairs
    const int y = (frame.height() - height) / 2 & ~1;
    const int toWidth = picture.width();
    const int toHeight = picture.height();
    const auto toPixels = static_cast<std::size_t>(toWidth) * static_cast<std::size_t>(toHeight);

    if (frame.format() == kPixelFormat420v) {
        const int pairs = (toWidth + 1) / 2;
        const auto colour = static_cast<std::size_t>(pairs) * 2 * static_cast<std::size_t>((toHeight + 1) / 2);
        scratch_.resize(2 * (toPixels + colour));
        std::uint8_t* const luma = scratch_.data();
        std::uint8_t* const chroma = luma + toPixels;
        std::uint8_t* const mirroredLuma = chroma + colour;
        std::uint8_t* const mirroredChroma = mirroredLuma + toPixels;
        if (libyuv::NV12Scale(frame.data(0) + y * stride(frame, 0) + x, stride(frame, 0),
                              frame.data(1) + y / 2 * stride(frame, 1) + x, stride(frame, 1), width, height, luma,
                              toWidth, chroma, pairs * 2, toWidth, toHeight, libyuv::kFilterBox) != 0)
            return false;
        if (request.mirrored)
            libyuv::NV12Mirror(luma, toWidth, chroma, pairs * 2, mirroredLuma, toWidth, mirroredChroma, pairs * 2,
                               toWidth, toHeight);
        return libyuv::NV12ToARGB(request.mirrored ? mirroredLuma : luma, toWidth,
                                  request.mirrored ? mirroredChroma : chroma, pairs * 2, picture.data(),
                                  stride(picture), toWidth, toHeight) == 0;
    }
    scratch_.resize(4 * toPixels);
    std::uint8_t* const scaledPixels = request.mirrored ? scratch_.data() : picture.data();
    const int scaledStride = request.mirrored ? 4 * toWidth : stride(picture);
    if (libyuv::ARGBScale(frame.data() + y * stride(frame) + 4 * x, stride(frame), width, height, scaledPixels,
                          scaledStride, toWidth, toHeight, libyuv::kFilterBox) != 0)
        return false;
    if (request.mirrored)
        libyuv::ARGBMirror(scaledPixels, scaledStride, picture.data(), stride(picture), toWidth, toHeight);
    if (frame.format() == kPixelFormat32ARGB)  // the other byte order, which libyuv calls BGRA
        libyuv::BGRAToARGB(picture.data(), stride(picture), picture.data(), stride(picture), toWidth, toHeight);
    return true;
}

}  // namespace selvio
