// The Linux adapters, put together.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/linux/Recording.h>
#include <SelvioFacialCapture/linux/Vision.h>
#include <SelvioFacialCapture/platform/Platform.h>

namespace selvio {

/// A platform of Linux adapters: vision, JPEG and PNG files, device, screen, files, sensors, cameras, recording. The
/// vision models start to load in the background. `recording`: what the cameras recommend for a recording, H.265 among
/// it, and what writes it.
[[nodiscard]] SELVIO_EXPORT Platform makeLinuxPlatform(const VisionOptions& vision = {},
                                                       const RecordingOptions& recording = {});

}  // namespace selvio
