#include <SelvioFacialCapture/SelvioFacialCaptureVersion.h>

extern "C" {
const double SelvioFacialCaptureVersionNumber = 1.0;
const char SelvioFacialCaptureVersionString[] = "@(#)PROGRAM:SelvioFacialCapture  PROJECT:SelvioFacialCapture-1\n";
}

std::string SelvioFacialCapture::version() {
    return "3.2.1";
}
