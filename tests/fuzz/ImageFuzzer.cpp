// Still images: the loader and the search for faces.
#include "FuzzSupport.h"
#include "support/Pixels.h"

#include <SelvioFacialCapture/linux/Codec.h>
#include <SelvioFacialCapture/linux/Vision.h>

#include <algorithm>
#include <cmath>

void selvio::check(std::string_view input) {
    static const auto handler = makeSequenceRequestHandler();
    const auto picture = JpegPngImageLoader().loadImage(fileWith(input));
    if (!picture) return requireReason(picture.error().localizedDescription);
    const PixelBufferLayout& layout = picture.value()->layout();
    require(layout.format == kPixelFormat32BGRA && layout.width > 0 && layout.height > 0, "a picture is BGRA");
    for (int i = 0; i < layout.width * layout.height; ++i) {
        const auto* const pixel = sampleAt(*picture.value(), i % layout.width, i / layout.width);
        require(std::max({pixel[0], pixel[1], pixel[2]}) <= pixel[3], "a colour is premultiplied with its alpha");
    }
    constexpr int kMostPixels = 64 * 64;  // the search takes as long as thousands of small files
    if (layout.width * layout.height > kMostPixels || std::hash<std::string_view>()(input) % 64 != 0) return;
    const auto found = handler->perform({.pixelBuffer = picture.value(), .exifOrientation = 5, .isStillImage = true});
    require(static_cast<bool>(found), "a picture can be searched");
    for (const auto& face : found.value().observations)
        require(std::isfinite(face.boundingBox.x + face.boundingBox.width), "a face has a place");
}
