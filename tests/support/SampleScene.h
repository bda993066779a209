// The sample portrait before a camera: frames whose truth is known.
#pragma once

#include <SelvioFacialCapture/linux/Codec.h>
#include <SelvioFacialCapture/simulated/SimulatedFrames.h>

#include <string>

namespace selvio {

/// The key frames of a script, which are JSON objects.
inline std::shared_ptr<const SimulatedFrames> sampleScene(const std::string& keyFrames) {
    static const auto photograph = JpegPngImageLoader().loadImage(SELVIO_SAMPLES "/astronaut.jpg").value();
    static const auto geometry = FaceGeometry::load(SELVIO_SAMPLES "/astronaut.json").value();
    const auto script = MotionScript::parse("{\"keyFrames\": [" + keyFrames + "]}", "scene");
    return SimulatedFrames::make(photograph, geometry, script.value()).value();
}

/// The fields of a pose. Places and the jaw's width are shares of the frame's width and height.
inline std::string poseFields(double x, double y, double jaw, double roll) {
    char text[160];
    std::snprintf(text, sizeof text, R"("center": [%f, %f], "jawWidth": %f, "roll": %f)", x, y, jaw, roll);
    return text;
}

/// One face, and further fields of the key frame, each with a comma before it.
inline std::string oneFace(double x, double y, double jaw, double roll = 0, const std::string& more = "") {
    return R"({"at": 0, "visible": true, )" + poseFields(x, y, jaw, roll) + more + "}";
}

}  // namespace selvio
