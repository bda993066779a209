// A part of a frame.
#pragma once

namespace selvio {

/// Part of a frame, in pixels.
struct FrameCrop {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    friend bool operator==(const FrameCrop&, const FrameCrop&) = default;
};

}  // namespace selvio
