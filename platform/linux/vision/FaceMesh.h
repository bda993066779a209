// The fine shape of a face: 468 points on a mesh, found in a square around it.
#pragma once

#include "platform/linux/vision/FaceDetection.h"
#include "platform/linux/vision/Landmarks.h"
#include "platform/linux/vision/Network.h"
#include "platform/linux/vision/PictureSampler.h"

#include <array>
#include <cstddef>
#include <memory>
#include <optional>

namespace selvio {

inline constexpr std::size_t kMeshPointCount = 468;

/// In pixels of the full-size view. The numbering is the network's; the face's right side is at the left.
using MeshPoints = std::array<Point, kMeshPointCount>;

/// Any thread.
class FaceMesh {
public:
    /// The error says in what the model differs from the one that is wanted.
    static Expected<std::shared_ptr<const FaceMesh>> make(Model model);

    /// The points of the face that fills the square; nothing if there is none. Throws std::runtime_error when memory is
    /// short.
    [[nodiscard]] std::optional<MeshPoints> find(PictureSampler& picture, const ViewSquare& square) const;

private:
    explicit FaceMesh(std::shared_ptr<const Network> network);

    const std::shared_ptr<const Network> network_;
};

/// The square that the mesh network wants around a face, turned by the line of the eyes.
[[nodiscard]] ViewSquare squareAround(const FaceCandidate& face);
[[nodiscard]] ViewSquare squareAround(const MeshPoints& face);

/// Those of the mesh's points that stand for the 68.
[[nodiscard]] LandmarkPoints landmarksOf(const MeshPoints& mesh);

}  // namespace selvio
