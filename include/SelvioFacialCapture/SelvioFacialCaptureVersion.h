// Which version of the component this is.
#pragma once

#include <string>

extern "C" {
/// The interface's version: 1.0.
extern const double SelvioFacialCaptureVersionNumber;
/// The identification line that tools find in the binary, ending in a line feed.
extern const char SelvioFacialCaptureVersionString[];
}

class SelvioFacialCapture {
public:
    /// The component's version, which the data record carries: "3.2.1".
    [[nodiscard]] static std::string version();
};
