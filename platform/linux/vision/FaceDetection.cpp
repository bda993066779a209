#include "platform/linux/vision/FaceDetection.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace selvio {
namespace {

constexpr int kSide = 128;               // of the network's input, pixels
constexpr std::size_t kBoxNumbers = 16;  // middle, size and six points, x and y each
constexpr double kLeastScore = 0.5;
// Answers count in the mean by how far their scores lie above this, so that none comes in or goes out with a jump.
constexpr double kNoWeight = 0.1;
constexpr double kSameFaceOverlap = 0.3;
constexpr float kBlack = -1.0F;

/// The middles of the cells for which the network answers: 16 x 16 with two answers each, then 8 x 8 with six.
std::vector<Point> anchors() {
    std::vector<Point> result;
    for (const auto& [cells, answers] : {std::pair{16, 2}, {8, 6}}) {
        for (int y = 0; y < cells; ++y) {
            for (int x = 0; x < cells; ++x)
                result.insert(result.end(), static_cast<std::size_t>(answers), {(x + 0.5) / cells, (y + 0.5) / cells});
        }
    }
    return result;
}

/// The mean of candidates under the best score.
FaceCandidate meanOf(const std::vector<FaceCandidate>& same) {
    FaceCandidate mean;
    double sum = 0.0;
    for (const FaceCandidate& one : same) sum += one.score - kNoWeight;
    for (const FaceCandidate& one : same) {
        const double weight = (one.score - kNoWeight) / sum;
        const auto add = [&](Point& to, Point p) { to = {to.x + weight * p.x, to.y + weight * p.y}; };
        mean.score = std::max(mean.score, one.score);
        mean.box.x += weight * one.box.x;
        mean.box.y += weight * one.box.y;
        mean.box.width += weight * one.box.width;
        mean.box.height += weight * one.box.height;
        add(mean.leftEye, one.leftEye);
        add(mean.rightEye, one.rightEye);
    }
    return mean;
}

}  // namespace

double sharedArea(const Rect& a, const Rect& b) {
    const double width = std::min(a.x + a.width, b.x + b.width) - std::max(a.x, b.x);
    const double height = std::min(a.y + a.height, b.y + b.height) - std::max(a.y, b.y);
    return std::max(width, 0.0) * std::max(height, 0.0);
}

FaceDetection::FaceDetection(std::shared_ptr<const Network> network)
    : network_(std::move(network)), anchors_(anchors()) {}

Expected<std::shared_ptr<const FaceDetection>> FaceDetection::make(Model model) {
    auto network = Network::make(std::move(model));
    if (!network) return network.error();
    const auto& made = *network.value();
    std::shared_ptr<const FaceDetection> detection(new FaceDetection(network.value()));
    const std::size_t count = detection->anchors_.size();
    if (made.inputShape() != std::vector{1, kSide, kSide, 3} || made.outputCount() != 2 ||
        made.outputSize(0) != count * kBoxNumbers || made.outputSize(1) != count)
        return Error{"it is not a network that detects faces in 128 x 128 pixels"};
    return detection;
}

std::vector<FaceCandidate> FaceDetection::find(PictureSampler& picture, const ViewSquare& square) const {
    std::vector<FaceCandidate> all;
    {
        auto run = network_->borrow();
        picture.read(square, {.values = run.input(), .side = kSide, .black = kBlack, .white = 1.0F});
        run.run();
        const auto boxes = run.output(0);
        const auto scores = run.output(1);
        const double cosine = std::abs(std::cos(square.angle));
        const double sine = std::abs(std::sin(square.angle));
        const double leastLogit = std::log(kNoWeight / (1.0 - kNoWeight));
        for (std::size_t i = 0; i < anchors_.size(); ++i) {
            if (!(scores[i] >= leastLogit)) continue;
            const auto numbers = boxes.subspan(i * kBoxNumbers, kBoxNumbers);
            const auto length = [&](std::size_t index) {
                return static_cast<double>(numbers[index]) / kSide * square.side;
            };
            const auto point = [&](std::size_t index) {
                return square.at((anchors_[i].x - 0.5) * square.side + length(index),
                                 (anchors_[i].y - 0.5) * square.side + length(index + 1));
            };
            const Point middle = point(0);
            const double width = cosine * length(2) + sine * length(3);
            const double height = sine * length(2) + cosine * length(3);
            all.push_back({1.0 / (1.0 + std::exp(-static_cast<double>(scores[i]))),
                           {middle.x - width / 2.0, middle.y - height / 2.0, width, height},
                           point(4),
                           point(6)});
        }
    }
    std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) { return a.score > b.score; });
    std::vector<FaceCandidate> faces;
    while (!all.empty() && all.front().score >= kLeastScore) {
        const Rect best = all.front().box;
        std::vector<FaceCandidate> same{all.front()};
        all.erase(all.begin());
        std::erase_if(all, [&](const FaceCandidate& other) {
            const double shared = sharedArea(best, other.box);
            const Rect& box = other.box;
            const double covered = best.width * best.height + box.width * box.height - shared;
            if (shared <= 0.0 || shared / covered <= kSameFaceOverlap) return false;
            same.push_back(other);
            return true;
        });
        faces.push_back(meanOf(same));
    }
    return faces;
}

}  // namespace selvio
