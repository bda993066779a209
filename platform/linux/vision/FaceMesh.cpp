#include "platform/linux/vision/FaceMesh.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace selvio {
namespace {

constexpr int kSide = 192;  // of the network's input, pixels
constexpr double kMargin = 1.5;
constexpr float kLeastPresence = 0.0F;  // log-odds

// Eye corners, which show how the head is tilted.
constexpr std::size_t kLeftEyeCorner = 33;
constexpr std::size_t kRightEyeCorner = 263;

constexpr std::array<std::size_t, kLandmarkCount> kMeshPointOf{
    127, 234, 93,  58,  172, 136, 149, 148, 152, 377, 378, 365, 397, 288, 323, 454, 356,  // jaw
    70,  63,  105, 66,  107, 336, 296, 334, 293, 300,                                     // brows
    168, 197, 5,   4,   240, 97,  2,   326, 460,                                          // nose: bridge, base
    33,  160, 158, 133, 153, 144, 362, 385, 387, 263, 373, 380,                           // eyes
    61,  39,  37,  0,   267, 269, 291, 405, 314, 17,  84,  181,                           // outer lips
    78,  82,  13,  312, 308, 317, 14,  87,                                                // inner lips
};
// The jaw line's upper ends lie a little inside those that the face checks were tuned with; a share of their distance.
constexpr double kJawWidening = 0.014;

}  // namespace

FaceMesh::FaceMesh(std::shared_ptr<const Network> network) : network_(std::move(network)) {}

Expected<std::shared_ptr<const FaceMesh>> FaceMesh::make(Model model) {
    auto network = Network::make(std::move(model));
    if (!network) return network.error();
    const auto& made = *network.value();
    if (made.inputShape() != std::vector{1, kSide, kSide, 3} || made.outputCount() != 2 ||
        made.outputSize(0) != kMeshPointCount * 3 || made.outputSize(1) != 1)
        return Error{"it is not a network that finds 468 points of a face in 192 x 192 pixels"};
    return std::shared_ptr<const FaceMesh>(new FaceMesh(network.value()));
}

std::optional<MeshPoints> FaceMesh::find(PictureSampler& picture, const ViewSquare& square) const {
    auto run = network_->borrow();
    picture.read(square, {.values = run.input(), .side = kSide, .repeatEdge = true});
    run.run();
    if (!(run.output(1)[0] >= kLeastPresence)) return std::nullopt;
    const auto numbers = run.output(0);
    const double scale = square.side / kSide;
    const auto offset = [&](float place) { return (static_cast<double>(place) - kSide / 2.0) * scale; };
    MeshPoints points;
    for (std::size_t i = 0; i < kMeshPointCount; ++i)
        points[i] = square.at(offset(numbers[3 * i]), offset(numbers[3 * i + 1]));
    return points;
}

ViewSquare squareAround(const FaceCandidate& face) {
    return {{face.box.x + face.box.width / 2.0, face.box.y + face.box.height / 2.0},
            kMargin * std::max(face.box.width, face.box.height),
            std::atan2(face.rightEye.y - face.leftEye.y, face.rightEye.x - face.leftEye.x)};
}

ViewSquare squareAround(const MeshPoints& face) {
    const double angle =
        std::atan2(face[kRightEyeCorner].y - face[kLeftEyeCorner].y, face[kRightEyeCorner].x - face[kLeftEyeCorner].x);
    const double cosine = std::cos(angle);
    const double sine = std::sin(angle);
    // The bounds along and across the line of the eyes.
    constexpr double kFar = std::numeric_limits<double>::infinity();
    Point least{kFar, kFar};
    Point most{-kFar, -kFar};
    for (const Point& p : face) {
        const Point turned{cosine * p.x + sine * p.y, cosine * p.y - sine * p.x};
        least = {std::min(least.x, turned.x), std::min(least.y, turned.y)};
        most = {std::max(most.x, turned.x), std::max(most.y, turned.y)};
    }
    const Point middle{(least.x + most.x) / 2.0, (least.y + most.y) / 2.0};
    return {{cosine * middle.x - sine * middle.y, sine * middle.x + cosine * middle.y},
            kMargin * std::max(most.x - least.x, most.y - least.y),
            angle};
}

LandmarkPoints landmarksOf(const MeshPoints& mesh) {
    LandmarkPoints points;
    std::transform(kMeshPointOf.begin(), kMeshPointOf.end(), points.begin(), [&](std::size_t i) { return mesh[i]; });
    const Point across{(points[16].x - points[0].x) * kJawWidening, (points[16].y - points[0].y) * kJawWidening};
    points[0] = {points[0].x - across.x, points[0].y - across.y};
    points[16] = {points[16].x + across.x, points[16].y + across.y};
    return points;
}

}  // namespace selvio
