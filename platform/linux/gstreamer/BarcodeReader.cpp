#include "BarcodeReader.h"

#define ZX_USE_UTF8 1
#include <ZXing/ReadBarcode.h>

#include <algorithm>
#include <exception>

namespace selvio {

std::vector<MetadataObject> BarcodeReader::read(const PixelBuffer& frame) {
    std::vector<MetadataObject> objects;
    global_ = !global_;
    try {
        const bool grey = frame.format() == kPixelFormat420v;
        const ZXing::ImageView view(frame.data(), frame.width(), frame.height(),
                                    grey ? ZXing::ImageFormat::Lum : ZXing::ImageFormat::BGRX,
                                    static_cast<int>(frame.bytesPerRow()));
        ZXing::DecodeHints hints;
        hints.setFormats(ZXing::BarcodeFormat::PDF417);
        hints.setTryHarder(true);
        hints.setTryRotate(true);
        hints.setBinarizer(global_ ? ZXing::Binarizer::GlobalHistogram : ZXing::Binarizer::LocalAverage);
        const ZXing::Result result = ZXing::ReadBarcode(view, hints);
        if (!result.isValid()) return objects;
        const auto& corners = result.position();
        const auto [left, right] = std::minmax({corners[0].x, corners[1].x, corners[2].x, corners[3].x});
        const auto [top, bottom] = std::minmax({corners[0].y, corners[1].y, corners[2].y, corners[3].y});
        const double width = frame.width();
        const double height = frame.height();
        objects.push_back({kMetadataObjectTypePDF417Code,
                           result.text(),
                           {left / width, top / height, (right - left) / width, (bottom - top) / height}});
    } catch (const std::exception&) {
        // A picture that the decoder cannot stand holds no code.
    }
    return objects;
}

}  // namespace selvio
