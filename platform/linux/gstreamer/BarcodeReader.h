// Finds PDF417 codes in frames.
#pragma once

#include <SelvioFacialCapture/imaging/PixelBuffer.h>
#include <SelvioFacialCapture/platform/Capture.h>

#include <vector>

namespace selvio {

/// Looks at one frame after another. One thread at a time.
class BarcodeReader {
public:
    /// The codes in a BGRA or 420v frame. Two ways of telling dark from light take turns, since each reads what the
    /// other cannot; a code that stays in view is found within two calls.
    [[nodiscard]] std::vector<MetadataObject> read(const PixelBuffer& frame);

private:
    bool global_ = false;
};

}  // namespace selvio
