// A photograph with one bright spot, and scenes made of it.
#pragma once

#include <SelvioFacialCapture/simulated/SimulatedFrames.h>

#include <cmath>
#include <string>

#include "support/Pixels.h"

namespace selvio {

inline constexpr Point kSpot{112, 150};

inline FaceGeometry spotGeometry() {
    return {.width = 220, .height = 300, .jawLeft = {70, 100}, .jawRight = {150, 110}, .landmarks = {{"spot", kSpot}}};
}

/// Dark grey with a round white spot of radius 9, its edge one pixel soft.
inline std::shared_ptr<PixelBuffer> spotPhotograph() {
    const FaceGeometry geometry = spotGeometry();
    return painted(geometry.width, geometry.height, kPixelFormat32BGRA, [](std::uint8_t* pixel, int x, int y, int) {
        const double inside = std::clamp(9.5 - std::hypot(x + 0.5 - kSpot.x, y + 0.5 - kSpot.y), 0.0, 1.0);
        std::fill_n(pixel, 4, static_cast<std::uint8_t>(std::lround(50 + 200 * inside)));
    });
}

/// Frames whose script is the list of key frames given.
inline std::shared_ptr<const SimulatedFrames> spotFrames(const std::string& keyFrames) {
    const auto script = MotionScript::parse("{\"keyFrames\": [" + keyFrames + "]}", "test");
    return SimulatedFrames::make(spotPhotograph(), spotGeometry(), script.value()).value();
}

inline constexpr const char* kSteady = R"({"at": 0, "visible": true, "center": [0.5, 0.45], "jawWidth": 0.6})";

}  // namespace selvio
