// What a recording decides: bit rate, frame size and file names.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureCameraParameters.h>
#include <SelvioFacialCapture/platform/AssetWriter.h>
#include <SelvioFacialCapture/platform/Device.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace selvio::rules {

/// The average bit rate in bits a second for a quality of 10 to 100: 0.5 to 6 Mbit/s for HEVC, 1.5 to 13 Mbit/s for any
/// other codec. HEVC has its own rate from service level 11 on.
[[nodiscard]] std::int64_t averageBitRate(SelvioFacialCaptureVideoQuality quality, std::string_view codec,
                                          int serviceLevel);

/// The settings for a recording: those recommended, with the frame size of the interface orientation (720x1280 for both
/// portraits, else 1280x720; unchanged if the orientation cannot be known) and the average bit rate.
[[nodiscard]] VideoSettings recordingSettings(VideoSettings recommended,
                                              std::optional<InterfaceOrientation> interfaceOrientation,
                                              SelvioFacialCaptureVideoQuality quality, int serviceLevel);

/// "selvio_yyyy-MM-dd_HH-mm-ss-SSS.mp4" in local time, for a time in seconds since 1 January 2001, 00:00:00 UTC.
/// Milliseconds are cut, not rounded.
[[nodiscard]] std::string recordingFileName(double secondsSinceReferenceDate);

/// Whether a name is that of a recording that may have been left over: "selvio_….mp4", case-sensitive.
[[nodiscard]] bool isLeftoverRecording(std::string_view fileName);

}  // namespace selvio::rules
