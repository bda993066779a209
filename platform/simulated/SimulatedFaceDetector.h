// A smile detector that believes the scene's script.
#pragma once

#include <SelvioFacialCapture/platform/FaceDetector.h>
#include <SelvioFacialCapture/simulated/SimulatedScene.h>

namespace selvio {

/// Does not look at the picture: while the script's face is visible it answers exactly one face, the script's first,
/// smiling as the script says at this moment. For scripts whose person has to smile or to stop smiling, which one
/// photograph cannot show.
class SimulatedFaceDetector final : public FaceDetector {
public:
    explicit SimulatedFaceDetector(std::shared_ptr<SimulatedScene> scene) : scene_(std::move(scene)) {}
    std::vector<FaceFeature> featuresInImage(const Image& image, bool smile) override;

private:
    const std::shared_ptr<SimulatedScene> scene_;
};

}  // namespace selvio
