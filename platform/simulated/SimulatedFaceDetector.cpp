#include "platform/simulated/SimulatedFaceDetector.h"

#include <cmath>

namespace selvio {

std::vector<FaceFeature> SimulatedFaceDetector::featuresInImage(const Image& image, bool smile) {
    if (image.bitmap == nullptr) return {};
    const auto time = scene_->time();
    const auto faces = scene_->frames().trueGeometry(time, image.bitmap->width(), image.bitmap->height());
    if (faces.empty()) return {};
    // a square as wide as the jaw, from the jaw's ends downwards and upwards
    const FrameFace& face = faces.front();
    const double side = std::hypot(face.jawRight.x - face.jawLeft.x, face.jawRight.y - face.jawLeft.y);
    const Point middle{(face.jawLeft.x + face.jawRight.x) / 2, (face.jawLeft.y + face.jawRight.y) / 2};
    const Rect bounds{middle.x - side / 2, middle.y - side / 4, side, side};
    return {{.bounds = bounds, .hasSmile = smile && scene_->frames().script().stateAt(time).smiling}};
}

}  // namespace selvio
