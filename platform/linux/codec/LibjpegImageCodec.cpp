#include <SelvioFacialCapture/linux/Codec.h>

#include "platform/linux/codec/ExifSegment.h"
#include "platform/linux/codec/JpegFile.h"

#include <new>
#include <utility>

namespace selvio {
namespace {

class JpegImageSource final : public ImageSource {
public:
    JpegImageSource(Bytes file, JpegHeader header) : file_(std::move(file)), header_(std::move(header)) {}
    [[nodiscard]] ImageProperties properties() const override { return {header_.jfif, header_.exif, std::nullopt}; }
    [[nodiscard]] const Bytes& file() const { return file_; }

private:
    const Bytes file_;
    const JpegHeader header_;
};

/// What `make` returns, or nothing if the memory does not suffice for it.
template <typename Make>
auto ifMemorySuffices(const Make& make) -> decltype(make()) {
    try {
        return make();
    } catch (const std::bad_alloc&) {
        return {};
    }
}

}  // namespace

std::optional<Bytes> LibjpegImageCodec::encodeJpeg(const Image& image, double quality) const {
    if (!image.bitmap) return std::nullopt;
    JpegTarget target{.quality = quality, .jfif = std::nullopt, .exif = std::nullopt};
    if (const int orientation = static_cast<int>(exifOrientationFor(image.orientation)); orientation != 1)
        target.exif = {std::nullopt, orientation};
    return ifMemorySuffices([&] { return encodeJpegPixels(*image.bitmap, target); });
}

std::shared_ptr<ImageSource> LibjpegImageCodec::openSource(Bytes bytes) const {
    auto header = readJpegHeader(bytes);
    if (!header) return nullptr;
    return std::make_shared<JpegImageSource>(std::move(bytes), std::move(*header));
}

std::optional<Bytes> LibjpegImageCodec::encodeFromSource(const ImageSource& source,
                                                         const ImageProperties& properties) const {
    const auto* const jpeg = dynamic_cast<const JpegImageSource*>(&source);
    if (!jpeg) return std::nullopt;
    const double quality = properties.lossyCompressionQuality.value_or(1.0F);
    return ifMemorySuffices([&] {
        return reencodeJpeg(jpeg->file(), {.quality = quality, .jfif = properties.jfif, .exif = properties.exif});
    });
}

bool LibjpegImageCodec::userCommentFits(std::string_view text) const {
    return makeExifSegment({std::string(text), 1}).has_value();
}

}  // namespace selvio
