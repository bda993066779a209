#include "camera/rules/SessionRules.h"

namespace selvio::rules {

std::string presetToSet(const std::string& wanted, const std::function<bool(const std::string& preset)>& canSet) {
    for (const std::string& preset :
         {wanted, std::string(kCaptureSessionPreset1920x1080), std::string(kCaptureSessionPreset1280x720)}) {
        if (canSet(preset)) return preset;
    }
    return kCaptureSessionPresetHigh;
}

std::optional<CaptureDeviceFormat> searchFormat(const std::vector<CaptureDeviceFormat>& formats,
                                                std::int64_t pixelBufferFormat, Size desired) {
    const auto code = static_cast<std::uint64_t>(pixelBufferFormat);
    const CaptureDeviceFormat* best = nullptr;
    for (const CaptureDeviceFormat& format : formats) {
        const VideoFormatDescription& description = format.formatDescription;
        if (std::uint64_t{description.mediaSubType} != code) continue;
        if (best && description.width <= best->formatDescription.width) continue;
        best = &format;
        if (Size{static_cast<double>(description.width), static_cast<double>(description.height)} == desired) break;
    }
    return best ? std::optional(*best) : std::nullopt;
}

PixelFormat framePixelFormat(bool analyzeRGBVideo, std::int64_t pixelBufferFormat) {
    return analyzeRGBVideo ? static_cast<PixelFormat>(pixelBufferFormat) : kPixelFormat420v;
}

VideoOrientation previewOrientation(VideoOrientation cameraOrientation) {
    return cameraOrientation == VideoOrientation::NotSet ? VideoOrientation::Portrait : cameraOrientation;
}

VideoOrientation outputOrientation(VideoOrientation cameraOrientation) {
    switch (cameraOrientation) {
        case VideoOrientation::Portrait:
        case VideoOrientation::PortraitUpsideDown:
        case VideoOrientation::LandscapeLeft:
            return cameraOrientation;
        default:
            return VideoOrientation::LandscapeRight;
    }
}

bool isOrientation(VideoOrientation orientation) {
    return orientation >= VideoOrientation::Portrait && orientation <= VideoOrientation::LandscapeLeft;
}

}  // namespace selvio::rules
