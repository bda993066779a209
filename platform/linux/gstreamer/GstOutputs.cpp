#include "platform/linux/gstreamer/GstOutputs.h"

#define ZX_USE_UTF8 1
#include <ZXing/ReadBarcode.h>

#include <algorithm>
#include <exception>

namespace selvio {

constexpr std::chrono::milliseconds kSearchPause{70};  // between two searches, each of which takes up to 30 ms

VideoSettings GstVideoDataOutput::recommendedVideoSettings(const std::string&) const {
    return {codec_, 720, 1280, {{kVideoExpectedSourceFrameRateKey, framesPerSecond_}}};
}

void GstMetadataOutput::search(std::shared_ptr<PixelBuffer> frame, std::function<bool()> isWanted) {
    if (!frame || busy_.exchange(true)) return;
    const std::weak_ptr weak = std::static_pointer_cast<GstMetadataOutput>(shared_from_this());
    queue_.async([weak, frame = std::move(frame), isWanted = std::move(isWanted)]() mutable {
        const auto self = weak.lock();
        if (!self) return;
        auto objects = self->codesIn(*frame);
        frame.reset();
        if (!objects.empty()) self->deliver(std::move(objects), std::move(isWanted));
        self->queue_.asyncAfter(kSearchPause, [weak] {
            if (const auto output = weak.lock()) output->busy_ = false;
        });
    });
}

// Two ways of telling dark from light take turns, since each reads what the other cannot; a code that stays in view is
// found within two calls.
std::vector<MetadataObject> GstMetadataOutput::codesIn(const PixelBuffer& frame) try {
    usesGlobalHistogram_ = !usesGlobalHistogram_;
    const bool grey = frame.format() == kPixelFormat420v;
    const ZXing::ImageView view(frame.data(), frame.width(), frame.height(),
                                grey ? ZXing::ImageFormat::Lum : ZXing::ImageFormat::BGRX,
                                static_cast<int>(frame.bytesPerRow()));
    ZXing::DecodeHints hints;
    hints.setFormats(ZXing::BarcodeFormat::PDF417);
    hints.setTryHarder(true);
    hints.setTryRotate(true);
    hints.setBinarizer(usesGlobalHistogram_ ? ZXing::Binarizer::GlobalHistogram : ZXing::Binarizer::LocalAverage);
    const ZXing::Result result = ZXing::ReadBarcode(view, hints);
    if (!result.isValid()) return {};
    const auto& corners = result.position();
    const auto [left, right] = std::minmax({corners[0].x, corners[1].x, corners[2].x, corners[3].x});
    const auto [top, bottom] = std::minmax({corners[0].y, corners[1].y, corners[2].y, corners[3].y});
    const double width = frame.width();
    const double height = frame.height();
    return {{kMetadataObjectTypePDF417Code,
             result.text(),
             {left / width, top / height, (right - left) / width, (bottom - top) / height}}};
} catch (const std::exception&) {
    return {};  // a picture that the decoder cannot stand holds no code
}

}  // namespace selvio
