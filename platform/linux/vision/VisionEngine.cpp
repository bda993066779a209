#include "VisionEngine.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace selvio {
namespace {

// Sides of the squares in which single pictures are searched for small faces, in shares of the picture's width. A face
// is found from 15 % of a square's side on, so these lead down to 6 % of the width.
constexpr std::array<double, 2> kPictureSquares{0.62, 0.36};
// How sure the detection must be there: so many squares show it much that resembles a face.
constexpr double kLeastScoreOfSmallest = 0.65;
constexpr double kLeastSquare = 128.0;  // pixels: one of the network's for each of the picture's
constexpr int kMostSquares = 72;        // of one size

// Neighbouring squares share this part of their side: a face that the next larger squares miss lies whole in one.
constexpr double kSquareOverlap = 0.35;

// Looking again: side of the square in sides of the face.
constexpr double kAgainSquare = 3.0;

constexpr std::size_t kMostFaces = 32;

/// Whether two boxes show one face: the smaller one may be a part of it.
bool same(const Rect& a, const Rect& b) {
    const double width = std::min(a.x + a.width, b.x + b.width) - std::max(a.x, b.x);
    const double height = std::min(a.y + a.height, b.y + b.height) - std::max(a.y, b.y);
    return width > 0.0 && height > 0.0 && width * height > 0.4 * std::min(a.width * a.height, b.width * b.height);
}

bool isAmong(const std::vector<FaceCandidate>& known, const FaceCandidate& face) {
    return std::any_of(known.begin(), known.end(), [&](const auto& other) { return same(other.box, face.box); });
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

std::vector<FaceCandidate> VisionEngine::glance() {
    const Size size = picture_.viewSize();
    return models_->detection->find(picture_,
                                    {{size.width / 2.0, size.height / 2.0}, std::max(size.width, size.height)});
}

double VisionEngine::shorterSide() const {
    return std::min(picture_.viewSize().width, picture_.viewSize().height);
}

void VisionEngine::searchSquares(double side, double leastScore, std::vector<FaceCandidate>& known) {
    const Size size = picture_.viewSize();
    side = std::max(side, kLeastSquare);
    while (squaresAlong(size.width, side) * squaresAlong(size.height, side) > kMostSquares) side *= 1.2;
    const int columns = squaresAlong(size.width, side);
    const int rows = squaresAlong(size.height, side);
    if (columns * rows == 1) return;  // no more than the glance shows
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
    for (const auto& face : found) {
        if (!isAmong(known, face)) known.push_back(face);
    }
}

std::optional<FaceCandidate> VisionEngine::lookAgain(const FaceCandidate& before) {
    const ViewSquare square{{before.box.x + before.box.width / 2.0, before.box.y + before.box.height / 2.0},
                            kAgainSquare * std::max(before.box.width, before.box.height)};
    for (const auto& face : models_->detection->find(picture_, square)) {
        if (same(face.box, before.box)) return face;
    }
    return std::nullopt;
}

void VisionEngine::searchForTheSmallest(std::vector<FaceCandidate>& known) {
    for (const double share : kPictureSquares)
        searchSquares(share * picture_.viewSize().width, kLeastScoreOfSmallest, known);
}

std::vector<FoundFace> VisionEngine::findInPicture(const PixelBuffer& buffer, ViewTransform view) {
    picture_.take(buffer, view);
    auto candidates = glance();
    searchSquares(shorterSide(), 0.0, candidates);
    searchForTheSmallest(candidates);
    return withLandmarks(candidates);
}

std::vector<FoundFace> VisionEngine::findInSequence(const PixelBuffer& buffer, ViewTransform view,
                                                    std::chrono::nanoseconds now) {
    picture_.take(buffer, view);
    auto candidates = glance();
    const bool goesOn = sequence_ && sequence_->view == view && sequence_->width == buffer.width() &&
                        sequence_->height == buffer.height();
    if (!goesOn || ++sequence_->framesSinceWidePass >= kFramesBetweenWidePasses ||
        now - sequence_->lastWidePass >= kTimeBetweenWidePasses) {
        sequence_ = Sequence{view, buffer.width(), buffer.height(), 0, now, {}};
        const auto seen = static_cast<std::ptrdiff_t>(candidates.size());
        searchSquares(shorterSide(), 0.0, candidates);
        sequence_->small.assign(candidates.begin() + seen, candidates.end());
        // What begins a sequence may as well be a picture that stands alone.
        if (!goesOn) searchForTheSmallest(candidates);
    } else {
        std::vector<FaceCandidate> stillThere;
        for (const auto& before : sequence_->small) {
            const auto face = lookAgain(before);
            if (face && !isAmong(candidates, *face)) {
                stillThere.push_back(*face);
                candidates.push_back(*face);
            }
        }
        sequence_->small = std::move(stillThere);
    }
    return withLandmarks(candidates);
}

std::vector<FoundFace> VisionEngine::withLandmarks(const std::vector<FaceCandidate>& candidates) {
    std::vector<FoundFace> faces;
    for (const auto& candidate : candidates) {
        auto mesh = models_->mesh->find(picture_, squareAround(candidate));
        if (mesh && refine_) mesh = models_->mesh->find(picture_, squareAround(*mesh));
        if (!mesh) continue;
        FoundFace face{.box = {}, .points = landmarksOf(*mesh)};
        face.box = boxAround(face.points);
        // Two candidates may be parts of one face.
        if (std::none_of(faces.begin(), faces.end(), [&](const auto& other) { return same(other.box, face.box); }))
            faces.push_back(face);
        if (faces.size() == kMostFaces) break;
    }
    return faces;
}

}  // namespace selvio
