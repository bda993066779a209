// Conversions between bitmaps, pixel buffers, sample buffers and images.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/imaging/Image.h>
#include <SelvioFacialCapture/imaging/PixelBuffer.h>
#include <SelvioFacialCapture/imaging/SampleBuffer.h>

#include <cstdint>
#include <memory>
#include <optional>

/// Class operations only, all of them safe on any thread: they read their arguments and keep nothing. They work on
/// 32-bit BGRA, 32-bit ARGB and 420v pictures. A null argument, a sample without a picture or a picture without pixels
/// gives null (or an absent image), in silence except where an operation says that it logs. What is returned belongs to
/// the caller.
class SELVIO_EXPORT SelvioFacialCaptureImageUtilities {
public:
    using Bitmap = selvio::Bitmap;
    using Image = selvio::Image;
    using PixelBuffer = selvio::PixelBuffer;
    using PixelBufferPool = selvio::PixelBufferPool;
    using SampleBuffer = selvio::SampleBuffer;

    SelvioFacialCaptureImageUtilities() = delete;

    /// A turned copy in the source's own pixel format. The angle is compared exactly with the doubles below; column c,
    /// row r (from the top left) of a picture w wide and h high moves to:
    ///
    ///   byRadians                       | size of the result | new column, new row  |
    ///   0                               | w x h              | c, r                 | upright copy
    ///   π/2 (1.5707963267948966)        | h x w              | h-1-r, c             | a quarter turn clockwise
    ///   -π/2                            | h x w              | r, w-1-c             | a quarter turn counter-clockwise
    ///   π (3.141592653589793)           | w x h              | w-1-c, h-1-r         | half a turn
    ///   anything else, -π and NaN too   | w x h              | c, h-1-r             | only flipped vertically
    ///
    /// 420v is turned plane by plane; with an odd side its colour may move by one pixel.
    static Bitmap rotateCGImage(const Bitmap& image, double byRadians);

    /// The picture in a new 32-bit ARGB buffer, alpha premultiplied. 420v is converted from BT.601 video range and is
    /// opaque.
    static std::shared_ptr<PixelBuffer> pixelBufferFromCGImage(const Bitmap& image);

    /// As `pixelBufferFromCGImage`, in a sample buffer whose data is ready and whose timing is invalid.
    static std::shared_ptr<SampleBuffer> sampleBufferFromCGImage(const Bitmap& image);

    /// The sample's picture as an image of scale 1, without a copy: the image shares the sample's pixel buffer and
    /// keeps it alive, so its memory must not be written any more. Orientation of the image by device orientation: 0
    /// up, 3 up, 4 down, anything else right.
    static std::optional<Image> imageFromSampleBufferWithDeviceOrientation(
        const std::shared_ptr<const SampleBuffer>& sampleBuffer, std::int64_t deviceOrientation);
    /// The same with device orientation 0.
    static std::optional<Image> imageFromSampleBuffer(const std::shared_ptr<const SampleBuffer>& sampleBuffer);
    /// The same, always up: the orientation is ignored.
    static std::optional<Image> imageFromSampleBufferAdjustedForOrientation(
        const std::shared_ptr<const SampleBuffer>& sampleBuffer, std::int64_t orientation);

    /// The picture rendered into a new 32-bit BGRA bitmap, upright, scale 1. Later changes of the buffer do not show in
    /// it.
    static std::optional<Image> imageFromPixelBuffer(const std::shared_ptr<const PixelBuffer>& pixelBuffer);

    /// The image's bitmap turned by `rotateCGImage`, upright, scale 1; the image's own orientation is not looked at.
    /// Orientation to angle: 1 π/2, 2 -π/2, 3 0, 4 π, anything else 0.
    static std::optional<Image> imageFromUIImage(const std::optional<Image>& image, std::int64_t orientation);

    /// A deep copy: same size, format and pixels. It has the source's row lengths too, in one block copy a plane,
    /// unless these take more memory than rows rounded up to 64 bytes: a part of a larger picture is copied row by row
    /// into compact rows. Nothing behind the last sample of a plane is read. The overload with a pool takes the memory
    /// from it, so that a steady stream of frames allocates no pixel memory. If no buffer can be had, logs
    /// "RBGBuffereCopyWithPixelBuffer :: failed" and returns null.
    static std::shared_ptr<PixelBuffer> copyPixelBuffer(const std::shared_ptr<const PixelBuffer>& pixelBuffer);
    static std::shared_ptr<PixelBuffer> copyPixelBuffer(const std::shared_ptr<const PixelBuffer>& pixelBuffer,
                                                        PixelBufferPool& pool);

    /// A new sample over a deep copy of the sample's picture (see `copyPixelBuffer`), its data ready. Its timing is
    /// invalid: the source's times are not carried over.
    static std::shared_ptr<SampleBuffer> copySampleBuffer(const std::shared_ptr<const SampleBuffer>& sampleBuffer);
    static std::shared_ptr<SampleBuffer> copySampleBuffer(const std::shared_ptr<const SampleBuffer>& sampleBuffer,
                                                          PixelBufferPool& pool);
};
