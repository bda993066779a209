// Pictures as files on Linux: JPEG by TurboJPEG, EXIF by libexif, PNG by libpng.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/platform/ImageCodec.h>

namespace selvio {

/// JPEG files in memory. No state: any thread, any number at once. Always writes baseline files of three components
/// with 4:2:0 colour (a source's grey or other subsampling stays), a JFIF segment and, behind it, the EXIF segment if
/// there is one.
///
/// - `encodeJpeg` takes BGRA, ARGB (alpha is not looked at: transparent parts are black) and 420v, whose samples go in
///   as they are, stretched from video range to JPEG's full range. Quality 0...1, clamped; NaN is full quality. An
///   orientation other than up is written as EXIF orientation.
/// - `openSource` reads the headers only. The JFIF and EXIF properties are present if the file has such segments; a
///   damaged EXIF segment counts as absent, and so does a user comment in another character code than ASCII.
/// - `encodeFromSource` refuses a source that is cut short or damaged, and EXIF properties that do not fit into one
///   segment or whose user comment is not ASCII. The samples of YCbCr and grey sources are taken over without a detour
///   through RGB.
class SELVIO_EXPORT LibjpegImageCodec final : public ImageCodec {
public:
    [[nodiscard]] std::optional<Bytes> encodeJpeg(const Image& image, double quality) const override;
    [[nodiscard]] std::shared_ptr<ImageSource> openSource(Bytes bytes) const override;
    [[nodiscard]] std::optional<Bytes> encodeFromSource(const ImageSource& source,
                                                        const ImageProperties& properties) const override;
    [[nodiscard]] bool userCommentFits(std::string_view text) const override;
};

/// JPEG and PNG files, every colour type of theirs, as upright BGRA; transparency is premultiplied. A picture may have
/// up to 32767 pixels a side and 2^28 in all, a JPEG file 1 GiB. Refused with "path: reason", in one line: a missing,
/// empty, cut short, damaged or special file, another format, arithmetic-coded JPEG. Superfluous bytes before a JPEG's
/// end marker are ignored. Beside the result a JPEG takes the memory of its file, and a picture that its orientation
/// turns that of a second one. A file too short for the size that it claims is refused before any memory is taken for
/// its pixels.
class SELVIO_EXPORT JpegPngImageLoader final : public ImageLoader {
public:
    [[nodiscard]] Expected<std::shared_ptr<PixelBuffer>> loadImage(const std::string& path) const override;
};

}  // namespace selvio
