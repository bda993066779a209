// Which version of the component this is.
#pragma once

#include <SelvioFacialCapture/base/Export.h>

#include <string>

extern "C" {
/// The interface's version: 1.0.
SELVIO_EXPORT extern const double SelvioFacialCaptureVersionNumber;
/// The identification line that tools find in the binary, ending in a line feed.
SELVIO_EXPORT extern const char SelvioFacialCaptureVersionString[];
}

class SELVIO_EXPORT SelvioFacialCapture {
public:
    /// The component's version, which the data record carries: "3.2.1".
    [[nodiscard]] static std::string version();
};
