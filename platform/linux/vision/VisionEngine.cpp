#include "platform/linux/vision/VisionEngine.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

namespace selvio {
namespace {

// Sides of the squares in which small faces are sought, in shares of the picture's width. A face is found for certain
// from 20 % of a square's side on, and mostly from 15 %.
constexpr double kSequenceSquares = 0.8;
constexpr std::array kPictureSquares{0.62, 0.34};
// How sure the detection must be there, and of heads that lie on their side: both show it much that resembles a face.
constexpr double kLeastScoreOfUnlikely = 0.65;
constexpr double kLeastSquare = 128.0;  // pixels: one of the network's for each of the picture's
constexpr int kMostSquares = 72;        // of one size

// Neighbouring squares share this part of their side: a face that the next larger squares miss lies whole in one.
constexpr double kSquareOverlap = 0.3;

// Looking again: side of the square in sides of the face.
constexpr double kAgainSquare = 3.0;

constexpr std::size_t kMostFaces = 32;

/// Whether two boxes show one face: the smaller one may be a part of it.
bool same(const Rect& a, const Rect& b) {
    const double shared = sharedArea(a, b);
    return shared > 0.0 && shared > 0.4 * std::min(a.width * a.height, b.width * b.height);
}

/// How many squares cover a length.
int squaresAlong(double length, double side) {
    return length <= side ? 1 : 1 + static_cast<int>(std::ceil((length - side) / (side * (1.0 - kSquareOverlap))));
}

/// The upright square around all points.
Rect boxAround(const LandmarkPoints& points) {
    const auto [left, right] =
        std::minmax_element(points.begin(), points.end(), [](Point p, Point q) { return p.x < q.x; });
    const auto [top, bottom] =
        std::minmax_element(points.begin(), points.end(), [](Point p, Point q) { return p.y < q.y; });
    const double side = std::max(right->x - left->x, bottom->y - top->y);
    return {(left->x + right->x - side) / 2.0, (top->y + bottom->y - side) / 2.0, side, side};
}

}  // namespace

VisionEngine::VisionEngine(std::shared_ptr<const VisionModels> models, bool refine)
    : models_(std::move(models)), refine_(refine) {}

std::vector<FaceCandidate> VisionEngine::searchSquares(double share, double leastScore) {
    const Size size = picture_.viewSize();
    double side = std::max(share * size.width, kLeastSquare);
    while (squaresAlong(size.width, side) * squaresAlong(size.height, side) > kMostSquares) side *= 1.2;
    const int columns = squaresAlong(size.width, side);
    const int rows = squaresAlong(size.height, side);
    if (columns * rows == 1) return {};  // no more than the glance shows
    const auto middle = [&](double length, int index, int count) {
        return count == 1 ? length / 2.0 : side / 2.0 + (length - side) * index / (count - 1);
    };
    std::vector<FaceCandidate> found;
    for (int row = 0; row < rows; ++row) {
        for (int column = 0; column < columns; ++column) {
            const Point centre{middle(size.width, column, columns), middle(size.height, row, rows)};
            for (const auto& face : models_->detection->find(picture_, {centre, side})) {
                // What the square cuts off lies whole in its neighbour.
                const Rect& box = face.box;
                const bool cut = (column > 0 && box.x < centre.x - side / 2.0) ||
                                 (column + 1 < columns && box.x + box.width > centre.x + side / 2.0) ||
                                 (row > 0 && box.y < centre.y - side / 2.0) ||
                                 (row + 1 < rows && box.y + box.height > centre.y + side / 2.0);
                if (!cut && face.score >= leastScore) found.push_back(face);
            }
        }
    }
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.score > b.score; });
    return found;
}

std::optional<FaceCandidate> VisionEngine::lookAgain(const FaceCandidate& before) {
    const ViewSquare square{{before.box.x + before.box.width / 2.0, before.box.y + before.box.height / 2.0},
                            kAgainSquare * std::max(before.box.width, before.box.height)};
    for (const auto& face : models_->detection->find(picture_, square)) {
        if (same(face.box, before.box)) return face;
    }
    return std::nullopt;
}

std::vector<FoundFace> VisionEngine::findInPicture(const PixelBuffer& buffer, ViewTransform view) {
    picture_.take(buffer, view);
    auto faces = findAtAGlance();
    for (const double share : kPictureSquares) {
        auto small = searchSquares(share, kLeastScoreOfUnlikely);
        addFaces(small, faces);
    }
    return faces;
}

std::vector<FoundFace> VisionEngine::findInSequence(const PixelBuffer& buffer, ViewTransform view,
                                                    std::chrono::nanoseconds now) {
    picture_.take(buffer, view);
    auto faces = findAtAGlance();
    const bool continues = sequence_ && sequence_->view == view && sequence_->width == buffer.width() &&
                           sequence_->height == buffer.height();
    if (!continues || ++sequence_->framesSinceWidePass >= kFramesBetweenWidePasses ||
        now - sequence_->lastWidePass >= kTimeBetweenWidePasses) {
        sequence_ = Sequence{view, buffer.width(), buffer.height(), 0, now, searchSquares(kSequenceSquares, 0.0)};
    } else {
        std::erase_if(sequence_->small, [this](FaceCandidate& face) {
            const auto now = lookAgain(face);
            if (now) face = *now;
            return !now;
        });
    }
    addFaces(sequence_->small, faces);
    return faces;
}

std::vector<FoundFace> VisionEngine::findAtAGlance() {
    std::vector<FoundFace> faces;
    // The network learned upright heads: one that lies on its side is upright in a picture that lies on its side too.
    for (const double quarters : {0.0, 1.0, -1.0}) {
        const Size size = picture_.viewSize();
        auto candidates = models_->detection->find(picture_, {{size.width / 2.0, size.height / 2.0},
                                                              std::max(size.width, size.height),
                                                              quarters * std::numbers::pi / 2.0});
        if (quarters != 0.0)
            std::erase_if(candidates, [](const auto& face) { return face.score < kLeastScoreOfUnlikely; });
        addFaces(candidates, faces);
        if (!faces.empty()) break;
    }
    return faces;
}

void VisionEngine::addFaces(std::vector<FaceCandidate>& candidates, std::vector<FoundFace>& faces) {
    std::erase_if(candidates, [&](const FaceCandidate& candidate) {
        const auto isKnown = [&](const Rect& box) {
            return std::any_of(faces.begin(), faces.end(), [&](const auto& face) { return same(face.box, box); });
        };
        if (faces.size() == kMostFaces || isKnown(candidate.box)) return true;
        auto mesh = models_->mesh->find(picture_, squareAround(candidate));
        if (mesh && refine_) mesh = models_->mesh->find(picture_, squareAround(*mesh));
        if (!mesh) return true;
        FoundFace face{.box = {}, .points = landmarksOf(*mesh)};
        face.box = boxAround(face.points);
        if (isKnown(face.box)) return true;  // both are parts of one face
        faces.push_back(face);
        return false;
    });
}

}  // namespace selvio
