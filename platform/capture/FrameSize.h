// Sizes and parts of frames.
#pragma once

#include <SelvioFacialCapture/platform/Capture.h>

#include <array>

namespace selvio {

/// Pixels.
struct FrameSize {
    int width = 0;
    int height = 0;
    friend bool operator==(const FrameSize&, const FrameSize&) = default;
};

/// Part of a frame, in pixels.
struct FrameCrop {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    friend bool operator==(const FrameCrop&, const FrameCrop&) = default;
};

/// What a preset's name stands for, in landscape terms. "High" is a search, and not among them.
struct PresetSize {
    const char* preset;
    FrameSize size;
};
inline constexpr std::array kPresetSizes{PresetSize{kCaptureSessionPreset640x480, {640, 480}},
                                         PresetSize{kCaptureSessionPreset1280x720, {1280, 720}},
                                         PresetSize{kCaptureSessionPreset1920x1080, {1920, 1080}}};

[[nodiscard]] inline std::optional<FrameSize> sizeOfPreset(const std::string& preset) {
    for (const auto& [name, size] : kPresetSizes) {
        if (preset == name) return size;
    }
    return std::nullopt;
}

[[nodiscard]] constexpr bool isPortrait(VideoOrientation orientation) {
    return orientation == VideoOrientation::Portrait || orientation == VideoOrientation::PortraitUpsideDown;
}

}  // namespace selvio
