#include "VisionEngine.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

namespace selvio::hog {
namespace {

struct Thresholds {
    double frontal = 0.0;
    double turned = 0.0;
};

// Shorter side of the view in which faces are sought, in pixels, and the most pixels such a view may have however long
// it is.
constexpr double kUsualSide = 180.0;
// Tried when that finds nothing: its sizes lie between the other's.
constexpr double kSecondSide = 156.0;
constexpr double kUsualPixels = 180.0 * 900.0;
constexpr double kWideSide = 384.0;
constexpr double kWidePixels = 384.0 * 1600.0;
// Beside a face that the usual scale found; larger ones are that scale's business.
constexpr int kWideLevels = 3;
constexpr double kMostEnlargement = 2.0;

// How far above the filters' own thresholds a face must score. At the usual scale no extra false boxes come with a
// lower one; the larger scale shows more of the background, so there a face must be surer, but not to be seen again at
// its place.
constexpr Thresholds kUsual{.frontal = -0.25, .turned = 0.0};
constexpr Thresholds kWideAlone{.frontal = 0.3, .turned = 0.12};
constexpr double kWideSecond = 0.5;  // a second face that is none would keep a good picture from being taken
constexpr Thresholds kAgain{.frontal = -0.1, .turned = 0.0};

// Looking again: side of the face in the small view, and how much of the side is added around it.
constexpr double kAgainSide = 92.0;
constexpr double kAgainMargin = 0.35;

// Landmarks: side of the face's box in the small view, at which the nose spans more than 24 pixels, and how much of the
// side is added around it.
constexpr double kLandmarkSide = 144.0;
constexpr double kLandmarkMargin = 0.32;

// Stages of the cascade for the first, rough points.
constexpr std::size_t kRoughStages = 6;

/// A box beside the refined one, moved and scaled about its middle, all in shares of its side.
constexpr FaceFrame beside(double right, double down, double larger) {
    return {1.0 + larger, 0.0, right - larger / 2.0, down - larger / 2.0};
}
// Together they neither move nor scale it.
constexpr std::array<FaceFrame, 2> kBeside{beside(0.015, 0.01, 0.015), beside(-0.015, -0.01, -0.015)};

constexpr double kRadian = 3.14159265358979323846 / 180.0;
constexpr std::size_t kMostFaces = 8;

/// The part of the buffer under a square of the view; its edges lie on multiples of four pixels where the picture
/// allows it, because whole blocks are averaged.
PixelArea areaUnder(const PixelBuffer& buffer, ViewTransform view, double left, double top, double side) {
    const Size size = viewSizeOf(buffer, view);
    const Rect rect = view.toBuffer(Rect{left / size.width, top / size.height, side / size.width, side / size.height});
    const auto span = [](double start, double length, int limit) {
        const double first = std::clamp(std::floor(start * limit / 4.0) * 4.0, 0.0, static_cast<double>(limit));
        const double end = std::clamp(std::ceil((start + length) * limit / 4.0) * 4.0, 0.0, static_cast<double>(limit));
        return std::pair(static_cast<int>(first), static_cast<int>(end));
    };
    const auto [x, right] = span(rect.x, rect.width, buffer.width());
    const auto [y, bottom] = span(rect.y, rect.height, buffer.height());
    return {x, y, right - x, bottom - y};
}

/// The detector's box moves in steps, and the trees' answers jump with single pixels. A second run starts from the box
/// that a rough first run's points imply, turned with the head, which takes out the steps; the mean of runs from boxes
/// a little beside it takes out most of the jumps.
LandmarkPoints steadyPoints(const LandmarkModel& model, const GreyImage& image, const FaceFrame& detected) {
    const FaceFrame refined = model.frameOf(model.predict(image, detected, kRoughStages));
    std::array<FaceFrame, kBeside.size()> frames;
    std::transform(kBeside.begin(), kBeside.end(), frames.begin(),
                   [&](const FaceFrame& other) { return refined.after(other); });
    return model.predict(image, frames);
}

double scaleFor(Size size, double side, double pixels) {
    return std::min(
        {side / std::min(size.width, size.height), std::sqrt(pixels / (size.width * size.height)), kMostEnlargement});
}

}  // namespace

Size viewSizeOf(const PixelBuffer& buffer, ViewTransform view) {
    const Size size{static_cast<double>(buffer.width()), static_cast<double>(buffer.height())};
    return view.transpose ? Size{size.height, size.width} : size;
}

VisionEngine::VisionEngine(std::shared_ptr<const VisionModels> models)
    : models_(std::move(models)), finder_(models_->filters) {}

bool VisionEngine::same(const Box& a, const Box& b) {
    const auto shared = [](double a0, double a1, double b0, double b1) {
        return std::max(0.0, std::min(a1, b1) - std::max(a0, b0));
    };
    const double overlap =
        shared(a.left, a.left + a.side, b.left, b.left + b.side) * shared(a.top, a.top + a.side, b.top, b.top + b.side);
    const double smaller = std::min(a.side, b.side);
    return overlap > 0.4 * smaller * smaller;
}

bool VisionEngine::load(const PixelBuffer& buffer, ViewTransform view, PixelArea area, double scale) {
    if (area.width < 1 || area.height < 1) return false;
    const double width = view.transpose ? area.height : area.width;
    const double height = view.transpose ? area.width : area.height;
    const int scaledWidth = std::max(1, static_cast<int>(std::lround(width * scale)));
    const int scaledHeight = std::max(1, static_cast<int>(std::lround(height * scale)));
    if (!viewMaker_.make(buffer, area, view, scaledWidth, scaledHeight, grey_)) return false;
    const Size size = viewSizeOf(buffer, view);
    const Rect inView = view.toView(
        Rect{static_cast<double>(area.x) / buffer.width(), static_cast<double>(area.y) / buffer.height(),
             static_cast<double>(area.width) / buffer.width(), static_cast<double>(area.height) / buffer.height()});
    loadedOrigin_ = {inView.x * size.width, inView.y * size.height};
    loadedPixel_ = {width / scaledWidth, height / scaledHeight};
    return true;
}

std::vector<VisionEngine::Box> VisionEngine::inFullView(const std::vector<HogFace>& faces) const {
    std::vector<Box> boxes;
    boxes.reserve(faces.size());
    for (const HogFace& face : faces) {
        boxes.push_back({loadedOrigin_.x + (face.left + 0.5) * loadedPixel_.width,
                         loadedOrigin_.y + (face.top + 0.5) * loadedPixel_.height, face.side * loadedPixel_.width,
                         face.tilt});
    }
    return boxes;
}

std::vector<HogFace> VisionEngine::search(double frontal, std::optional<double> turned, int levels) {
    finder_.load(grey_, levels);
    auto faces = finder_.findFrontal(frontal);
    // A tilted head is still a head: without this it would read as no face instead of as tilted.
    if (faces.empty() && turned) faces = finder_.findTurned(*turned);
    return faces;
}

std::vector<VisionEngine::Box> VisionEngine::usualPass(const PixelBuffer& buffer, ViewTransform view) {
    std::vector<Box> boxes;
    for (const double side : {kUsualSide, kSecondSide}) {
        const double scale = scaleFor(viewSizeOf(buffer, view), side, kUsualPixels);
        if (!load(buffer, view, {0, 0, buffer.width(), buffer.height()}, scale)) return {};
        boxes = inFullView(search(kUsual.frontal, kUsual.turned));
        if (!boxes.empty()) break;
    }
    return boxes;
}

std::vector<VisionEngine::Box> VisionEngine::widePass(const PixelBuffer& buffer, ViewTransform view,
                                                      const std::vector<Box>& known) {
    const double scale = scaleFor(viewSizeOf(buffer, view), kWideSide, kWidePixels);
    if (!load(buffer, view, {0, 0, buffer.width(), buffer.height()}, scale)) return {};
    auto faces =
        known.empty() ? search(kWideAlone.frontal, kWideAlone.turned) : search(kWideSecond, std::nullopt, kWideLevels);
    // The best one may be unsure when there is no other, but not those behind it.
    const auto unsure = [](const HogFace& face) { return face.score < kWideSecond; };
    if (faces.size() > 1) faces.erase(std::find_if(faces.begin() + 1, faces.end(), unsure), faces.end());
    auto boxes = inFullView(faces);
    std::erase_if(boxes, [&](const Box& box) {
        return std::any_of(known.begin(), known.end(), [&](const Box& other) { return same(box, other); });
    });
    return boxes;
}

std::optional<VisionEngine::Box> VisionEngine::lookAgain(const PixelBuffer& buffer, ViewTransform view,
                                                         const Box& before) {
    const double margin = before.side * kAgainMargin;
    const PixelArea area =
        areaUnder(buffer, view, before.left - margin, before.top - margin, before.side + 2.0 * margin);
    if (!load(buffer, view, area, std::min(kMostEnlargement, kAgainSide / before.side))) return std::nullopt;
    const auto boxes = inFullView(search(kAgain.frontal, kAgain.turned));
    if (boxes.empty()) return std::nullopt;
    return boxes.front();
}

std::vector<FoundFace> VisionEngine::findInPicture(const PixelBuffer& buffer, ViewTransform view) {
    auto boxes = usualPass(buffer, view);
    const auto more = widePass(buffer, view, boxes);
    boxes.insert(boxes.end(), more.begin(), more.end());
    return withLandmarks(buffer, view, std::move(boxes));
}

std::vector<FoundFace> VisionEngine::findInSequence(const PixelBuffer& buffer, ViewTransform view,
                                                    std::chrono::nanoseconds now) {
    auto boxes = usualPass(buffer, view);
    const bool goesOn = sequence_ && sequence_->view == view && sequence_->width == buffer.width() &&
                        sequence_->height == buffer.height();
    if (!goesOn || ++sequence_->framesSinceWidePass >= kFramesBetweenWidePasses ||
        now - sequence_->lastWidePass >= kTimeBetweenWidePasses) {
        sequence_ = Sequence{view, buffer.width(), buffer.height(), 0, now, widePass(buffer, view, boxes)};
    } else {
        std::vector<Box> stillThere;
        for (const Box& before : sequence_->small) {
            const auto box = lookAgain(buffer, view, before);
            if (box && std::none_of(boxes.begin(), boxes.end(), [&](const Box& other) { return same(*box, other); }))
                stillThere.push_back(*box);
        }
        sequence_->small = std::move(stillThere);
    }
    boxes.insert(boxes.end(), sequence_->small.begin(), sequence_->small.end());
    return withLandmarks(buffer, view, std::move(boxes));
}

std::vector<FoundFace> VisionEngine::withLandmarks(const PixelBuffer& buffer, ViewTransform view,
                                                   std::vector<Box> boxes) {
    if (boxes.size() > kMostFaces) boxes.resize(kMostFaces);
    std::vector<FoundFace> faces;
    for (const Box& box : boxes) {
        if (auto face = landmarksIn(buffer, view, box)) faces.push_back(*face);
    }
    return faces;
}

std::optional<FoundFace> VisionEngine::landmarksIn(const PixelBuffer& buffer, ViewTransform view, const Box& box) {
    const double margin = box.side * kLandmarkMargin;
    const PixelArea area = areaUnder(buffer, view, box.left - margin, box.top - margin, box.side + 2.0 * margin);
    if (!load(buffer, view, area, std::min(kMostEnlargement, kLandmarkSide / box.side))) return std::nullopt;
    const LandmarkModel& model = *models_->landmarks;
    const Point middle{(box.left + box.side / 2.0 - loadedOrigin_.x) / loadedPixel_.width - 0.5,
                       (box.top + box.side / 2.0 - loadedOrigin_.y) / loadedPixel_.height - 0.5};
    const LandmarkPoints points =
        steadyPoints(model, grey_, FaceFrame::around(middle, box.side / loadedPixel_.width, box.tilt * kRadian));

    const auto inView = [&](Point p) {
        return Point{loadedOrigin_.x + (p.x + 0.5) * loadedPixel_.width,
                     loadedOrigin_.y + (p.y + 0.5) * loadedPixel_.height};
    };
    FoundFace face;
    std::transform(points.begin(), points.end(), face.points.begin(), inView);
    const FaceFrame frame = model.frameOf(points);
    const Point centre = inView(frame.apply({0.5, 0.5}));
    const double side = std::hypot(frame.a, frame.b);
    face.box = {centre.x - side * loadedPixel_.width / 2.0, centre.y - side * loadedPixel_.height / 2.0,
                side * loadedPixel_.width, side * loadedPixel_.height};
    return face;
}

}  // namespace selvio::hog
