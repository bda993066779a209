// A camera frame as the view shows it.
#pragma once

#include <SelvioFacialCapture/imaging/Geometry.h>
#include <SelvioFacialCapture/imaging/PixelBuffer.h>

#include <vector>

namespace selvio {

struct PictureRequest {
    int width = 0;            ///< pixels
    int height = 0;           ///< pixels
    Size screen;              ///< what faces are judged on; frames are cut to it as the rules cut them
    bool mirrored = true;     ///< as in a mirror
    bool unreadable = false;  ///< so coarse that nobody is recognised
};

/// Cuts, scales and mirrors frames. One thread at a time: it keeps its memory from frame to frame.
class PictureScaler {
public:
    /// The picture in 32-bit BGRA. Null for a frame that cannot be read, a request without a size, or lack of memory.
    [[nodiscard]] std::shared_ptr<const PixelBuffer> scaled(const PixelBuffer& frame, const PictureRequest& request);

private:
    [[nodiscard]] bool scaleInto(PixelBuffer& picture, const PixelBuffer& frame, const PictureRequest& request);

    const std::shared_ptr<PixelBufferPool> pool_ = PixelBufferPool::create();
    std::vector<std::uint8_t> scratch_;
};

}  // namespace selvio
