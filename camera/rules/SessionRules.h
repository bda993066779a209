// What the configuration of a capture session decides: preset, format and orientations.
#pragma once

#include <SelvioFacialCapture/imaging/Geometry.h>
#include <SelvioFacialCapture/platform/Capture.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace selvio::rules {

/// The preset to set for a wanted one: itself if the session takes it, else the first of 1920x1080 and 1280x720 that
/// the session takes, else High, about which the session is not asked.
[[nodiscard]] std::string presetToSet(const std::string& wanted,
                                      const std::function<bool(const std::string& preset)>& canSet);

/// The format to make active, among those whose pixel format is `pixelBufferFormat` (the code in the low 32 bits, all
/// other bits zero). Each format wider than all before it is the best so far, and the search stops at once when such a
/// one has the desired size in pixels. So an exact match is found only if it is wider than every match before it;
/// otherwise the first of the widest is the answer.
[[nodiscard]] std::optional<CaptureDeviceFormat> searchFormat(const std::vector<CaptureDeviceFormat>& formats,
                                                              std::int64_t pixelBufferFormat, Size desired);

/// The pixel format that frames are asked for in: `pixelBufferFormat` when RGB is analyzed, else 420v.
[[nodiscard]] PixelFormat framePixelFormat(bool analyzeRGBVideo, std::int64_t pixelBufferFormat);

/// The orientation of the preview: the camera's, portrait when that is not set.
[[nodiscard]] VideoOrientation previewOrientation(VideoOrientation cameraOrientation);

/// The orientation of the output connections: the camera's if it is portrait, upside down or landscape left; landscape
/// right for all else, not set included. (The preview treats "not set" otherwise.)
[[nodiscard]] VideoOrientation outputOrientation(VideoOrientation cameraOrientation);

/// Whether the value is one of the four orientations.
[[nodiscard]] bool isOrientation(VideoOrientation orientation);

}  // namespace selvio::rules
