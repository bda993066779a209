// Pictures as files on Linux: JPEG by libjpeg-turbo, EXIF by libexif, PNG by libpng.
#pragma once

#include <SelvioFacialCapture/platform/ImageCodec.h>

namespace selvio {

/// JPEG files in memory. No state: any thread, any number at once. Always writes baseline files of three components
/// with 4:2:0 colour (grey stays grey), a JFIF segment and, behind it, the EXIF segment if there is one.
///
/// - `encodeJpeg` takes BGRA, ARGB (alpha is not looked at: transparent parts are black) and 420v, whose samples go in
/// as they are, stretched from
///   video range to JPEG's full range. Quality 0...1, clamped; NaN is full quality. An orientation other than up is
///   written as EXIF orientation.
/// - `openSource` reads the headers only. The JFIF and EXIF properties are present if the file has such segments; a
/// damaged EXIF segment counts as
///   absent. User comments are read in ASCII, in Unicode of either byte order, and without a character code (UTF-8,
///   else Latin-1).
/// - `encodeFromSource` refuses a source that is cut short or damaged, and EXIF properties that do not fit into one
/// segment. The samples of YCbCr and
///   grey sources are taken over without a detour through RGB and keep their subsampling.
/// - A user comment is written as ASCII where its text is, else as Unicode (UTF-16 in the byte order of the segment);
/// ill-formed UTF-8 becomes U+FFFD.
class LibjpegImageCodec final : public ImageCodec {
public:
    [[nodiscard]] std::optional<Bytes> encodeJpeg(const Image& image, double quality) const override;
    [[nodiscard]] std::shared_ptr<ImageSource> openSource(Bytes bytes) const override;
    [[nodiscard]] std::optional<Bytes> encodeFromSource(const ImageSource& source,
                                                        const ImageProperties& properties) const override;
    [[nodiscard]] bool userCommentFits(std::string_view text) const override;
};

/// JPEG and PNG files, every colour type of theirs, as upright BGRA; transparency is premultiplied. A picture may have
/// up to 32767 pixels a side and 2^28 in all. Refused with "path: reason", in one line: a missing, empty, cut short,
/// damaged or special file, another format, arithmetic-coded JPEG. Rows go straight to their places in the result, so
/// beside it only a progressive JPEG takes memory worth naming: two bytes a sample. A file too short for the size that
/// it claims is refused before any memory is taken for its pixels.
class JpegPngImageLoader final : public ImageLoader {
public:
    [[nodiscard]] Expected<std::shared_ptr<PixelBuffer>> loadImage(const std::string& path) const override;
};

}  // namespace selvio
