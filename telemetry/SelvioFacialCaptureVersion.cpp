#include <SelvioFacialCapture/SelvioFacialCaptureVersion.h>

extern "C" {
const double SelvioFacialCaptureVersionNumber = 1.0;
const char SelvioFacialCaptureVersionString[] = "@(#)PROGRAM:SelvioFacialCapture  PROJECT:SelvioFacialCapture-1\n";
}

std::string SelvioFacialCapture::version() {
    return std::to_string(SELVIO_FACIAL_CAPTURE_VERSION_MAJOR) + '.' +
           std::to_string(SELVIO_FACIAL_CAPTURE_VERSION_MINOR) + '.' +
           std::to_string(SELVIO_FACIAL_CAPTURE_VERSION_PATCH);
}
