// The keyed archives of the camera parameters and of the camera's view.
#include "FuzzSupport.h"

#include <SelvioFacialCapture/SelvioFacialCaptureCamera.h>
#include <SelvioFacialCapture/SelvioFacialCaptureCameraParameters.h>

using namespace selvio;
using selvio::test::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view archive(reinterpret_cast<const char*>(data), size);
    const auto parameters = SelvioFacialCaptureCameraParameters::initWithCoder(archive);
    require(parameters != nullptr && parameters->videoQuality() >= 10 && parameters->videoQuality() <= 100,
            "any text gives parameters in their range");
    const std::string written = parameters->encodeWithCoder();
    require(SelvioFacialCaptureCameraParameters::initWithCoder(written)->encodeWithCoder() == written,
            "an archive is read as it was written");
    const auto camera = SelvioFacialCaptureCamera::initWithCoder(archive, Platform{});
    require(camera != nullptr && !camera->encodeWithCoder().empty(), "any text gives a camera");
    return 0;
}
