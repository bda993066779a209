#include <SelvioFacialCapture/simulated/SimulatedFrames.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <numbers>
#include <utility>

namespace selvio {
namespace {

using std::chrono::nanoseconds;

constexpr int kLongestPhotographSide = 2560;  // pixels; a larger photograph is halved until it fits
constexpr double kMarginShare = 0.3;          // of the photograph's longer side, on each side of it
// Pixels of a level from one frame pixel to the next, above which the next smaller level is taken.
constexpr double kCoarsestStep = 1.4142;
constexpr std::size_t kNoiseSamples = 1 << 14;
constexpr double kNoiseUnit = 64.0;  // the table's standard deviation

std::uint64_t hash(std::uint64_t x) {
    x += 0x9e3779b97f4a7c15u;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9u;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebu;
    return x ^ (x >> 31);
}

// Normally distributed samples (sums of twelve uniform ones) in units of 1/kNoiseUnit standard deviations. One table
// for the process.
const std::vector<std::int16_t>& noiseTable() {
    static const std::vector<std::int16_t> table = [] {
        std::vector<std::int16_t> samples(kNoiseSamples);
        for (std::size_t i = 0; i < samples.size(); ++i) {
            std::int64_t sum = 0;
            for (std::uint64_t k = 0; k < 3; ++k) {
                const std::uint64_t bits = hash(i * 3 + k);
                for (unsigned shift = 0; shift < 64; shift += 16)
                    sum += static_cast<std::int64_t>((bits >> shift) & 0xffff);
            }
            samples[i] = static_cast<std::int16_t>((sum - 12 * 32768) * static_cast<std::int64_t>(kNoiseUnit) / 65536);
        }
        return samples;
    }();
    return table;
}

// A picture of 32-bit pixels without row padding.
struct Level {
    int width = 0;
    int height = 0;
    std::vector<std::uint32_t> pixels;
    [[nodiscard]] const std::uint32_t* row(int y) const {
        return pixels.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(width);
    }
    [[nodiscard]] std::uint32_t* row(int y) {
        return pixels.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(width);
    }
};

std::uint32_t mean4(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
    constexpr std::uint32_t kMask = 0x00ff00ff;
    const std::uint32_t even = (a & kMask) + (b & kMask) + (c & kMask) + (d & kMask) + 0x00020002;
    const std::uint32_t odd =
        ((a >> 8) & kMask) + ((b >> 8) & kMask) + ((c >> 8) & kMask) + ((d >> 8) & kMask) + 0x00020002;
    return ((even >> 2) & kMask) | (((odd >> 2) & kMask) << 8);
}

// Half the size; an odd last row or column is averaged with itself.
Level halved(const Level& from) {
    Level to{(from.width + 1) / 2, (from.height + 1) / 2, {}};
    to.pixels.resize(static_cast<std::size_t>(to.width) * static_cast<std::size_t>(to.height));
    for (int y = 0; y < to.height; ++y) {
        const std::uint32_t* const upper = from.row(2 * y);
        const std::uint32_t* const lower = from.row(std::min(2 * y + 1, from.height - 1));
        for (int x = 0; x < to.width; ++x) {
            const int right = std::min(2 * x + 1, from.width - 1);
            to.row(y)[x] = mean4(upper[2 * x], upper[right], lower[2 * x], lower[right]);
        }
    }
    return to;
}

struct Color {
    double b = 0;
    double g = 0;
    double r = 0;
    friend Color operator+(const Color& p, const Color& q) { return {p.b + q.b, p.g + q.g, p.r + q.r}; }
    friend Color operator-(const Color& p, const Color& q) { return {p.b - q.b, p.g - q.g, p.r - q.r}; }
    friend Color operator/(const Color& p, double by) { return {p.b / by, p.g / by, p.r / by}; }
};

// A pixel is a number with blue in its lowest byte; in a picture's memory blue is the first. Turns one into the other.
void exchangeWithMemory(std::uint32_t* row, int width) {
    if constexpr (std::endian::native == std::endian::big) {
        for (int x = 0; x < width; ++x) row[x] = __builtin_bswap32(row[x]);
    }
}

int blueOf(std::uint32_t p) {
    return static_cast<int>(p & 0xff);
}
int greenOf(std::uint32_t p) {
    return static_cast<int>((p >> 8) & 0xff);
}
int redOf(std::uint32_t p) {
    return static_cast<int>((p >> 16) & 0xff);
}

Color colorOf(std::uint32_t p) {
    return {static_cast<double>(blueOf(p)), static_cast<double>(greenOf(p)), static_cast<double>(redOf(p))};
}

std::uint32_t pixelOf(const Color& c) {
    const auto byte = [](double v) { return static_cast<std::uint32_t>(std::clamp(std::lround(v), 0L, 255L)); };
    return 0xff000000u | byte(c.r) << 16 | byte(c.g) << 8 | byte(c.b);
}

// Sums over rectangles of a picture in constant time.
class AreaSums {
public:
    explicit AreaSums(const Level& level)
        : width_(level.width),
          height_(level.height),
          sums_(static_cast<std::size_t>(width_ + 1) * static_cast<std::size_t>(height_ + 1)) {
        for (int y = 0; y < height_; ++y) {
            Color line;
            for (int x = 0; x < width_; ++x) {
                line = line + colorOf(level.row(y)[x]);
                sums_[index(x + 1, y + 1)] = sums_[index(x + 1, y)] + line;
            }
        }
    }

    // The mean over the square of the given radius around a pixel, as far as it lies in the picture.
    [[nodiscard]] Color mean(int x, int y, int radius) const {
        const int left = std::max(0, x - radius), right = std::min(width_, x + radius + 1);
        const int top = std::max(0, y - radius), bottom = std::min(height_, y + radius + 1);
        return mean(left, top, right, bottom);
    }
    [[nodiscard]] Color mean(int left, int top, int right, int bottom) const {
        const double area = static_cast<double>(right - left) * static_cast<double>(bottom - top);
        return (sums_[index(right, bottom)] + sums_[index(left, top)] - sums_[index(right, top)] -
                sums_[index(left, bottom)]) /
               area;
    }

private:
    [[nodiscard]] std::size_t index(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(width_ + 1) + static_cast<std::size_t>(x);
    }

    int width_;
    int height_;
    std::vector<Color> sums_;  // whole numbers
};

// The tone that surrounds the photograph: the mean of its upper edge and of the upper halves of its sides, where a
// portrait shows background.
Color surroundings(const Level& photograph, const AreaSums& sums) {
    const int w = photograph.width, h = photograph.height;
    const int border = std::max(1, std::max(w, h) / 50);
    const Color top = sums.mean(0, 0, w, std::min(border, h));
    const Color left = sums.mean(0, 0, std::min(border, w), (h + 1) / 2);
    const Color right = sums.mean(std::max(0, w - border), 0, w, (h + 1) / 2);
    return (top + left + right) / 3;
}

// The photograph with a margin in which its edges blur and fade into the surroundings.
Level withMargin(const Level& photograph, const AreaSums& sums, const Color& tone, int margin) {
    Level canvas{photograph.width + 2 * margin, photograph.height + 2 * margin, {}};
    canvas.pixels.resize(static_cast<std::size_t>(canvas.width) * static_cast<std::size_t>(canvas.height));
    for (int y = 0; y < canvas.height; ++y) {
        const int py = std::clamp(y - margin, 0, photograph.height - 1);
        for (int x = 0; x < canvas.width; ++x) {
            const int px = std::clamp(x - margin, 0, photograph.width - 1);
            const double distance = std::hypot(x - margin - px, y - margin - py);
            if (distance == 0) {
                canvas.row(y)[x] = photograph.row(py)[px] | 0xff000000u;
                continue;
            }
            const Color edge = sums.mean(px, py, static_cast<int>(distance));
            const double t = std::min(1.0, distance / margin);
            const double fade = t * t * (3 - 2 * t);
            canvas.row(y)[x] = pixelOf(
                {std::lerp(edge.b, tone.b, fade), std::lerp(edge.g, tone.g, fade), std::lerp(edge.r, tone.r, fade)});
        }
    }
    return canvas;
}

// The four bytes of a pixel in four 16-bit lanes.
std::uint64_t spread(std::uint32_t pixel) {
    return (pixel | static_cast<std::uint64_t>(pixel) << 24) & 0x00ff00ff00ff00ffu;
}

std::uint32_t gathered(std::uint64_t lanes) {
    return static_cast<std::uint32_t>(lanes | lanes >> 24);
}

constexpr int kFraction = 16;  // bits behind the point of a position
constexpr std::int64_t kOne = std::int64_t{1} << kFraction;

// The half-open range of steps i in [first, last) for which 0 <= start + i * step <= limit.
void clip(std::int64_t start, std::int64_t step, std::int64_t limit, std::int64_t& first, std::int64_t& last) {
    const auto floorDivide = [](std::int64_t a, std::int64_t b) {
        return a / b - ((a % b != 0) && ((a < 0) != (b < 0)) ? 1 : 0);
    };
    if (step == 0) {
        if (start < 0 || start > limit) last = first;
    } else if (step > 0) {
        first = std::max(first, -floorDivide(start, step));
        last = std::min(last, floorDivide(limit - start, step) + 1);
    } else {
        first = std::max(first, -floorDivide(limit - start, -step));
        last = std::min(last, floorDivide(start, -step) + 1);
    }
    last = std::max(first, last);
}

// Draws `count` frame pixels; the first lies at (u, v), the next at (u + du, v + dv), in 16.16 pixels of the level,
// pixel centres at whole numbers.
void drawSpan(const Level& level, std::uint32_t background, std::int64_t u, std::int64_t v, std::int64_t du,
              std::int64_t dv, std::int64_t count, std::uint32_t* out) {
    std::int64_t first = 0, last = count;
    clip(u, du, (level.width - 1) * kOne - 1, first, last);
    clip(v, dv, (level.height - 1) * kOne - 1, first, last);
    if (first >= last) {
        std::fill_n(out, count, background);
        return;
    }
    std::fill_n(out, first, background);
    std::fill_n(out + last, count - last, background);
    auto x = static_cast<std::int32_t>(u + first * du);
    auto y = static_cast<std::int32_t>(v + first * dv);
    const auto dx = static_cast<std::int32_t>(du);
    const auto dy = static_cast<std::int32_t>(dv);
    const std::ptrdiff_t stride = level.width;
    const std::uint32_t* const pixels = level.pixels.data();
    for (std::int64_t i = first; i < last; ++i, x += dx, y += dy) {
        const std::uint32_t* const p = pixels + (y >> kFraction) * stride + (x >> kFraction);
        const auto fx = static_cast<std::uint32_t>(x >> (kFraction - 8)) & 0xff;
        const auto fy = static_cast<std::uint32_t>(y >> (kFraction - 8)) & 0xff;
        const std::uint32_t w11 = (fx * fy + 128) >> 8, w01 = fx - w11, w10 = fy - w11, w00 = 256 - fx - fy + w11;
        const std::uint64_t sum =
            spread(p[0]) * w00 + spread(p[1]) * w01 + spread(p[stride]) * w10 + spread(p[stride + 1]) * w11;
        out[i] = gathered(((sum + 0x0080008000800080u) >> 8) & 0x00ff00ff00ff00ffu);
    }
}

// Brightness and noise of one frame.
class Exposure {
public:
    Exposure(double light, double noise) : gain_(static_cast<int>(std::lround(light * 256))) {
        const int sigma = static_cast<int>(std::lround(noise * 256));
        if (sigma == 0) return;
        for (const std::int16_t sample : noiseTable()) {
            const int step = static_cast<int>(std::lround(sample * sigma / (kNoiseUnit * 256)));
            noise_.push_back(static_cast<std::int16_t>(step));
        }
    }

    // In place; the noise is another for every seed.
    void apply(std::uint32_t* row, int width, std::uint64_t seed) const {
        exchangeWithMemory(row, width);
        auto* const bytes = reinterpret_cast<std::uint8_t*>(row);
        if (gain_ != 256) {
            for (int i = 0; i < 4 * width; ++i)
                bytes[i] = static_cast<std::uint8_t>(std::min((bytes[i] * gain_ + 128) >> 8, 255));
        }
        if (!noise_.empty()) {
            constexpr int kRun = 1024;  // bytes between new places in the table
            for (int start = 0; start < 4 * width; start += kRun) {
                addNoise(bytes + start, std::min(kRun, 4 * width - start),
                         noise_.data() + hash(seed + static_cast<std::uint64_t>(start)) % (kNoiseSamples - kRun));
            }
        }
        exchangeWithMemory(row, width);
        if (gain_ != 256 || !noise_.empty()) {
            for (int x = 0; x < width; ++x) row[x] |= 0xff000000u;
        }
    }

private:
    static void addNoise(std::uint8_t* bytes, int count, const std::int16_t* steps) {
        for (int i = 0; i < count; ++i) {
            const auto value = static_cast<std::int16_t>(bytes[i] + steps[i]);
            bytes[i] = static_cast<std::uint8_t>(std::clamp<std::int16_t>(value, 0, 255));
        }
    }

    const int gain_;                   // 256: none
    std::vector<std::int16_t> noise_;  // empty: none
};

// BT.601, video range.
void lumaRow(const std::uint32_t* row, int width, std::uint8_t* out) {
    for (int x = 0; x < width; ++x)
        out[x] = static_cast<std::uint8_t>(
            ((66 * redOf(row[x]) + 129 * greenOf(row[x]) + 25 * blueOf(row[x]) + 128) >> 8) + 16);
}

void chromaPair(std::uint32_t mean, std::uint8_t* out) {
    const int r = redOf(mean), g = greenOf(mean), b = blueOf(mean);
    out[0] = static_cast<std::uint8_t>(((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128);
    out[1] = static_cast<std::uint8_t>(((112 * r - 94 * g - 18 * b + 128) >> 8) + 128);
}

void chromaRow(const std::uint32_t* upper, const std::uint32_t* lower, int width, std::uint8_t* out) {
    const int pairs = width / 2;
    for (int x = 0; x < pairs; ++x)
        chromaPair(mean4(upper[2 * x], upper[2 * x + 1], lower[2 * x], lower[2 * x + 1]), out + 2 * x);
    if (width % 2 != 0)
        chromaPair(mean4(upper[width - 1], upper[width - 1], lower[width - 1], lower[width - 1]), out + 2 * pairs);
}

// One face to be drawn into a frame: which level of the canvas, and where frame pixels lie in it.
struct Drawing {
    const Level* level = nullptr;
    Similarity frameToLevel;
};

// The frame left of this line belongs to one face, right of it to the other.
struct Divide {
    Point middle;
    Point direction;  // from the first face to the second
    // The first column of row y that belongs to the second face (`firstIsLeft`), or to the first one.
    [[nodiscard]] int column(int y, int width) const {
        const double dy = (y + 0.5 - middle.y) * direction.y;
        if (std::abs(direction.x) < 1e-9) return (dy > 0) == (direction.x >= 0) ? 0 : width;
        return static_cast<int>(
            std::clamp(std::ceil(middle.x - dy / direction.x - 0.5), 0.0, static_cast<double>(width)));
    }
    [[nodiscard]] bool firstIsLeft() const { return direction.x >= 0; }
};

}  // namespace

Similarity Similarity::inverse() const {
    const double d = a * a + b * b;
    return {a / d, -b / d, -(a * tx + b * ty) / d, (b * tx - a * ty) / d};
}

// The photograph with its margin, at full size and halved again and again.
struct SimulatedFrames::Canvas {
    std::vector<Level> levels;
    std::uint32_t background = 0;
    Similarity fromPhotograph;  // to level 0
};

SimulatedFrames::SimulatedFrames(FaceGeometry geometry, MotionScript script, std::unique_ptr<const Canvas> canvas)
    : geometry_(std::move(geometry)), script_(std::move(script)), canvas_(std::move(canvas)) {}

SimulatedFrames::~SimulatedFrames() = default;

Expected<std::shared_ptr<const SimulatedFrames>> SimulatedFrames::make(
    const std::shared_ptr<const PixelBuffer>& photograph, const FaceGeometry& geometry, MotionScript script) {
    if (!photograph) return Error{"the simulated camera has no photograph"};
    if (photograph->format() != kPixelFormat32BGRA) return Error{"the simulated camera's photograph is not in BGRA"};
    if (photograph->width() != geometry.width || photograph->height() != geometry.height) {
        return Error{"the photograph has " + std::to_string(photograph->width()) + " x " +
                     std::to_string(photograph->height()) + " pixels, its face geometry states " +
                     std::to_string(geometry.width) + " x " + std::to_string(geometry.height)};
    }
    if (auto error = geometry.check()) return *error;

    Level picture{photograph->width(), photograph->height(), {}};
    picture.pixels.resize(static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height));
    for (int y = 0; y < picture.height; ++y) {
        std::memcpy(picture.row(y), photograph->data() + static_cast<std::size_t>(y) * photograph->bytesPerRow(),
                    static_cast<std::size_t>(picture.width) * 4);
        exchangeWithMemory(picture.row(y), picture.width);
    }
    double scale = 1.0;
    for (; std::max(picture.width, picture.height) > kLongestPhotographSide; scale /= 2) picture = halved(picture);

    const AreaSums sums(picture);
    const Color tone = surroundings(picture, sums);
    const int margin = std::max(2, static_cast<int>(std::max(picture.width, picture.height) * kMarginShare));
    auto canvas = std::make_unique<Canvas>();
    canvas->background = pixelOf(tone);
    canvas->fromPhotograph = {scale, 0.0, static_cast<double>(margin), static_cast<double>(margin)};
    canvas->levels.push_back(withMargin(picture, sums, tone, margin));
    while (std::min(canvas->levels.back().width, canvas->levels.back().height) >= 4)
        canvas->levels.push_back(halved(canvas->levels.back()));
    return std::shared_ptr<const SimulatedFrames>(new SimulatedFrames(geometry, std::move(script), std::move(canvas)));
}

Similarity SimulatedFrames::photographToFrame(const FacePose& pose, int width, int height) const {
    const double jawX = geometry_.jawRight.x - geometry_.jawLeft.x, jawY = geometry_.jawRight.y - geometry_.jawLeft.y;
    const Point middle{(geometry_.jawLeft.x + geometry_.jawRight.x) / 2,
                       (geometry_.jawLeft.y + geometry_.jawRight.y) / 2};
    const double scale = pose.jawWidth * std::min(width, height) / std::hypot(jawX, jawY);
    const double turn = pose.roll * std::numbers::pi / 180.0 - std::atan2(jawY, jawX);
    Similarity map{scale * std::cos(turn), scale * std::sin(turn), 0.0, 0.0};
    const Point turned = map.apply(middle);
    map.tx = pose.center.x * width - turned.x;
    map.ty = pose.center.y * height - turned.y;
    return map;
}

std::vector<FrameFace> SimulatedFrames::trueGeometry(nanoseconds time, int width, int height) const {
    const MotionState state = script_.stateAt(time);
    std::vector<FrameFace> faces;
    const auto add = [&](const FacePose& pose) {
        FrameFace face{.photographToFrame = photographToFrame(pose, width, height),
                       .jawLeft = {},
                       .jawRight = {},
                       .landmarks = {}};
        face.jawLeft = face.photographToFrame.apply(geometry_.jawLeft);
        face.jawRight = face.photographToFrame.apply(geometry_.jawRight);
        for (const auto& [name, point] : geometry_.landmarks)
            face.landmarks.emplace(name, face.photographToFrame.apply(point));
        faces.push_back(std::move(face));
    };
    if (state.visible) add(state.face);
    if (state.visible && state.second) add(*state.second);
    return faces;
}

bool SimulatedFrames::render(nanoseconds time, PixelBuffer& frame) const {
    const bool planar = frame.format() == kPixelFormat420v;
    if (!planar && frame.format() != kPixelFormat32BGRA) return false;
    const int width = frame.width(), height = frame.height();
    const MotionState state = script_.stateAt(time);

    const auto drawing = [&](const FacePose& pose) {
        Similarity map = photographToFrame(pose, width, height).inverse();
        const Similarity& c = canvas_->fromPhotograph;  // no turn
        map = {c.a * map.a, c.a * map.b, c.a * map.tx + c.tx, c.a * map.ty + c.ty};
        std::size_t level = 0;
        for (; level + 1 < canvas_->levels.size() && std::hypot(map.a, map.b) > kCoarsestStep; ++level) {
            map = {map.a / 2, map.b / 2, map.tx / 2, map.ty / 2};
        }
        return Drawing{&canvas_->levels[level], map};
    };
    const Drawing face = drawing(state.face);
    const Drawing second = state.second ? drawing(*state.second) : face;
    Divide divide;
    if (state.second) {
        const FacePose &one = state.face, &other = *state.second;
        const double share = one.jawWidth / (one.jawWidth + other.jawWidth);
        divide.direction = {(other.center.x - one.center.x) * width, (other.center.y - one.center.y) * height};
        divide.middle = {one.center.x * width + share * divide.direction.x,
                         one.center.y * height + share * divide.direction.y};
    }

    const auto span = [&](const Drawing& d, int y, int from, int to, std::uint32_t* row) {
        const Point start = d.frameToLevel.apply({from + 0.5, y + 0.5});
        const auto fixed = [](double v) {
            return static_cast<std::int64_t>(std::llround(v * static_cast<double>(kOne)));
        };
        drawSpan(*d.level, canvas_->background, fixed(start.x - 0.5), fixed(start.y - 0.5), fixed(d.frameToLevel.a),
                 fixed(d.frameToLevel.b), to - from, row + from);
    };
    const Exposure exposure(state.light, state.noise);
    const std::uint64_t frameSeed = hash(script_.seed() ^ hash(static_cast<std::uint64_t>(time.count())));
    const auto drawRow = [&](int y, std::uint32_t* row) {
        if (!state.visible) {
            std::fill_n(row, width, canvas_->background);
        } else if (!state.second) {
            span(face, y, 0, width, row);
        } else {
            const int column = divide.column(y, width);
            span(divide.firstIsLeft() ? face : second, y, 0, column, row);
            span(divide.firstIsLeft() ? second : face, y, column, width, row);
        }
        exposure.apply(row, width, hash(frameSeed + static_cast<std::uint64_t>(y)));
    };

    if (!planar) {
        for (int y = 0; y < height; ++y) {
            auto* const row =
                reinterpret_cast<std::uint32_t*>(frame.data() + static_cast<std::size_t>(y) * frame.bytesPerRow());
            drawRow(y, row);
            exchangeWithMemory(row, width);
        }
        return true;
    }
    std::vector<std::uint32_t> rows(2 * static_cast<std::size_t>(width));
    std::uint32_t* const upper = rows.data();
    std::uint32_t* const lower = upper + width;
    for (int y = 0; y < height; y += 2) {
        const bool both = y + 1 < height;
        drawRow(y, upper);
        if (both) drawRow(y + 1, lower);
        lumaRow(upper, width, frame.data() + static_cast<std::size_t>(y) * frame.bytesPerRow());
        if (both) lumaRow(lower, width, frame.data() + static_cast<std::size_t>(y + 1) * frame.bytesPerRow());
        chromaRow(upper, both ? lower : upper, width,
                  frame.data(1) + static_cast<std::size_t>(y / 2) * frame.bytesPerRow(1));
    }
    return true;
}

std::shared_ptr<PixelBuffer> SimulatedFrames::frame(nanoseconds time, int width, int height, PixelFormat format) const {
    auto buffer = PixelBuffer::create(width, height, format);
    return buffer && render(time, *buffer) ? buffer : nullptr;
}

}  // namespace selvio
