// Which version of the component this is.
#pragma once

#include <SelvioFacialCapture/base/Export.h>

#include <string>

/// The component's version. CMake and the data record take it from here.
#define SELVIO_FACIAL_CAPTURE_VERSION_MAJOR 3
#define SELVIO_FACIAL_CAPTURE_VERSION_MINOR 2
#define SELVIO_FACIAL_CAPTURE_VERSION_PATCH 1
/// The same as one number, for comparisons: 10000 x major + 100 x minor + patch.
#define SELVIO_FACIAL_CAPTURE_VERSION                                                          \
    (SELVIO_FACIAL_CAPTURE_VERSION_MAJOR * 10000 + SELVIO_FACIAL_CAPTURE_VERSION_MINOR * 100 + \
     SELVIO_FACIAL_CAPTURE_VERSION_PATCH)

extern "C" {
/// The interface's version: 1.0.
SELVIO_EXPORT extern const double SelvioFacialCaptureVersionNumber;
/// The identification line that tools find in the binary, ending in a line feed.
SELVIO_EXPORT extern const char SelvioFacialCaptureVersionString[];
}

class SELVIO_EXPORT SelvioFacialCapture {
public:
    /// The version of the library that the program runs with, which the data record carries: "major.minor.patch".
    [[nodiscard]] static std::string version();
};
