// The keyed archives of the camera parameters and of the camera's view.
#include "FuzzSupport.h"

#include <SelvioFacialCapture/SelvioFacialCaptureCamera.h>
#include <SelvioFacialCapture/SelvioFacialCaptureCameraParameters.h>

void selvio::check(std::string_view input) {
    const auto parameters = SelvioFacialCaptureCameraParameters::initWithCoder(input);
    require(parameters && parameters->videoQuality() >= 10 && parameters->videoQuality() <= 100,
            "any text gives parameters in their range");
    const std::string written = parameters->encodeWithCoder();
    require(SelvioFacialCaptureCameraParameters::initWithCoder(written)->encodeWithCoder() == written,
            "an archive is read as it was written");
    const auto camera = SelvioFacialCaptureCamera::initWithCoder(input, Platform{});
    require(camera && !camera->encodeWithCoder().empty(), "any text gives a camera");
}
