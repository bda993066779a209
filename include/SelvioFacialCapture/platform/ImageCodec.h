// Ports: pictures as files.
#pragma once

#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/imaging/Image.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace selvio {

using Bytes = std::vector<std::uint8_t>;

/// The JFIF segment of a JPEG file. Unit 1: dots per inch.
struct JfifProperties {
    int xDensity = 1;
    int yDensity = 1;
    int densityUnit = 0;
};

/// The parts of an EXIF segment that the component reads and writes.
struct ExifProperties {
    std::optional<std::string> userComment;  ///< ASCII, without the field's character-code prefix
    std::optional<int> orientation;          ///< 1...8
};

struct ImageProperties {
    std::optional<JfifProperties> jfif;
    std::optional<ExifProperties> exif;
    std::optional<float> lossyCompressionQuality;  ///< 0...1
};

/// An encoded picture that has been opened.
class SELVIO_EXPORT ImageSource {
public:
    virtual ~ImageSource() = default;
    [[nodiscard]] virtual ImageProperties properties() const = 0;
};

/// JPEG files in memory. Every operation may be called on any thread.
class SELVIO_EXPORT ImageCodec {
public:
    virtual ~ImageCodec() = default;
    /// Encodes a picture at a quality of 0...1, with its orientation as EXIF orientation. Nothing on failure or for a
    /// null bitmap.
    [[nodiscard]] virtual std::optional<Bytes> encodeJpeg(const Image& image, double quality) const = 0;
    /// Opens JPEG bytes; null if they are not a JPEG.
    [[nodiscard]] virtual std::shared_ptr<ImageSource> openSource(Bytes bytes) const = 0;
    /// Encodes the source's picture anew at `properties.lossyCompressionQuality` (full quality without one), with the
    /// JFIF and EXIF properties given. Nothing on failure.
    [[nodiscard]] virtual std::optional<Bytes> encodeFromSource(const ImageSource& source,
                                                                const ImageProperties& properties) const = 0;
    /// Whether a user comment of this text can be written: ASCII that fits into one EXIF segment (64 KiB) beside what
    /// else the codec writes there.
    [[nodiscard]] virtual bool userCommentFits(std::string_view text) const = 0;
};

/// Pictures in files. Any thread.
class SELVIO_EXPORT ImageLoader {
public:
    virtual ~ImageLoader() = default;
    /// Decodes the file into a new BGRA buffer, its own EXIF orientation applied, so that the picture is upright. The
    /// error names the file and the reason; memory stays within what the file's honest content needs.
    [[nodiscard]] virtual Expected<std::shared_ptr<PixelBuffer>> loadImage(const std::string& path) const = 0;
};

}  // namespace selvio
