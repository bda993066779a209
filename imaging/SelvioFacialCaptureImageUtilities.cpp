#include <SelvioFacialCapture/SelvioFacialCaptureImageUtilities.h>
#include <SelvioFacialCapture/base/Log.h>

#include "imaging/PixelConversion.h"

#include <numbers>
#include <utility>

namespace {

using selvio::Bitmap;
using selvio::Image;
using selvio::ImageOrientation;
using selvio::PixelBuffer;
using selvio::SampleBuffer;
using selvio::Turn;

constexpr double kQuarterTurn = std::numbers::pi / 2;
constexpr double kHalfTurn = std::numbers::pi;

/// The angle, applied about the middle of a canvas whose y axis points down, to a picture that is drawn with y up: the
/// flip of the one undoes that of the other, so a positive angle turns clockwise, and an angle that sets no transform
/// leaves the picture flipped.
Turn turnByRadians(double angle) {
    if (angle == 0.0) return Turn::fromExif(1);
    if (angle == kQuarterTurn) return Turn::fromExif(6);
    if (angle == -kQuarterTurn) return Turn::fromExif(8);
    if (angle == kHalfTurn) return Turn::fromExif(3);
    return Turn::fromExif(4);
}

double radiansForOrientation(std::int64_t orientation) {
    switch (orientation) {
        case 1:
            return kQuarterTurn;
        case 2:
            return -kQuarterTurn;
        case 4:
            return kHalfTurn;
        default:
            return 0.0;
    }
}

ImageOrientation imageOrientationForDevice(std::int64_t deviceOrientation) {
    switch (deviceOrientation) {
        case 0:
        case 3:
            return ImageOrientation::Up;
        case 4:
            return ImageOrientation::Down;
        default:
            return ImageOrientation::Right;
    }
}

/// `allocate` gives a buffer of a layout, or null.
template <typename Allocate>
std::shared_ptr<PixelBuffer> deepCopy(const PixelBuffer* source, const Allocate& allocate) {
    if (!source) return nullptr;
    auto copy = source->isReadable() ? allocate(layoutOfCopy(*source)) : nullptr;
    if (copy) {
        copyPixels(*source, *copy);
    } else {
        selvio::log("RBGBuffereCopyWithPixelBuffer :: failed");
    }
    return copy;
}

std::shared_ptr<SampleBuffer> sampleOver(std::shared_ptr<PixelBuffer> pixelBuffer) {
    return pixelBuffer ? SampleBuffer::makeVideo(std::move(pixelBuffer)) : nullptr;
}

std::shared_ptr<PixelBuffer> pictureOf(const std::shared_ptr<const SampleBuffer>& sampleBuffer) {
    return sampleBuffer ? sampleBuffer->imageBuffer() : nullptr;
}

}  // namespace

Bitmap SelvioFacialCaptureImageUtilities::rotateCGImage(const Bitmap& image, double byRadians) {
    return image ? turned(*image, turnByRadians(byRadians)) : nullptr;
}

std::shared_ptr<PixelBuffer> SelvioFacialCaptureImageUtilities::pixelBufferFromCGImage(const Bitmap& image) {
    return image ? convertedTo32(*image, selvio::kPixelFormat32ARGB) : nullptr;
}

std::shared_ptr<SampleBuffer> SelvioFacialCaptureImageUtilities::sampleBufferFromCGImage(const Bitmap& image) {
    return sampleOver(pixelBufferFromCGImage(image));
}

std::optional<Image> SelvioFacialCaptureImageUtilities::imageFromSampleBufferWithDeviceOrientation(
    const std::shared_ptr<const SampleBuffer>& sampleBuffer, std::int64_t deviceOrientation) {
    auto picture = pictureOf(sampleBuffer);
    if (!picture || !picture->isReadable()) return std::nullopt;
    return Image{std::move(picture), imageOrientationForDevice(deviceOrientation), 1.0};
}

std::optional<Image> SelvioFacialCaptureImageUtilities::imageFromSampleBuffer(
    const std::shared_ptr<const SampleBuffer>& sampleBuffer) {
    return imageFromSampleBufferWithDeviceOrientation(sampleBuffer, 0);
}

std::optional<Image> SelvioFacialCaptureImageUtilities::imageFromSampleBufferAdjustedForOrientation(
    const std::shared_ptr<const SampleBuffer>& sampleBuffer, std::int64_t /*orientation*/) {
    return imageFromSampleBuffer(sampleBuffer);
}

std::optional<Image> SelvioFacialCaptureImageUtilities::imageFromPixelBuffer(
    const std::shared_ptr<const PixelBuffer>& pixelBuffer) {
    auto bitmap = pixelBuffer ? convertedTo32(*pixelBuffer, selvio::kPixelFormat32BGRA) : nullptr;
    if (!bitmap) return std::nullopt;
    return Image{std::move(bitmap), ImageOrientation::Up, 1.0};
}

std::optional<Image> SelvioFacialCaptureImageUtilities::imageFromUIImage(const std::optional<Image>& image,
                                                                         std::int64_t orientation) {
    auto bitmap = image ? rotateCGImage(image->bitmap, radiansForOrientation(orientation)) : nullptr;
    if (!bitmap) return std::nullopt;
    return Image{std::move(bitmap), ImageOrientation::Up, 1.0};
}

std::shared_ptr<PixelBuffer> SelvioFacialCaptureImageUtilities::copyPixelBuffer(
    const std::shared_ptr<const PixelBuffer>& pixelBuffer) {
    return deepCopy(pixelBuffer.get(),
                    [](const selvio::PixelBufferLayout& layout) { return PixelBuffer::create(layout); });
}

std::shared_ptr<PixelBuffer> SelvioFacialCaptureImageUtilities::copyPixelBuffer(
    const std::shared_ptr<const PixelBuffer>& pixelBuffer, PixelBufferPool& pool) {
    return deepCopy(pixelBuffer.get(),
                    [&pool](const selvio::PixelBufferLayout& layout) { return pool.acquire(layout); });
}

std::shared_ptr<SampleBuffer> SelvioFacialCaptureImageUtilities::copySampleBuffer(
    const std::shared_ptr<const SampleBuffer>& sampleBuffer) {
    return sampleOver(copyPixelBuffer(pictureOf(sampleBuffer)));
}

std::shared_ptr<SampleBuffer> SelvioFacialCaptureImageUtilities::copySampleBuffer(
    const std::shared_ptr<const SampleBuffer>& sampleBuffer, PixelBufferPool& pool) {
    return sampleOver(copyPixelBuffer(pictureOf(sampleBuffer), pool));
}
