#include "LandmarkModel.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <optional>

namespace selvio::hog {
namespace {

// Bounds that no sensible file exceeds: a damaged one must not make us ask for absurd amounts of memory.
constexpr std::uint64_t kMostStages = 64;
constexpr std::uint64_t kMostTrees = 4096;
constexpr std::uint64_t kMostSplits = 255;
constexpr std::uint64_t kMostProbes = 4096;

constexpr std::size_t kAhead = 8;

/// Least-squares scale, turn and shift from one shape to another.
template <typename From, typename To>
FaceFrame similarity(std::size_t count, From from, To to) {
    Point fromMean;
    Point toMean;
    for (std::size_t i = 0; i < count; ++i) {
        const Point f = from(i);
        const Point t = to(i);
        fromMean = {fromMean.x + f.x, fromMean.y + f.y};
        toMean = {toMean.x + t.x, toMean.y + t.y};
    }
    const auto n = static_cast<double>(count);
    fromMean = {fromMean.x / n, fromMean.y / n};
    toMean = {toMean.x / n, toMean.y / n};
    double dot = 0.0;
    double cross = 0.0;
    double length = 0.0;
    for (std::size_t i = 0; i < count; ++i) {
        const Point f{from(i).x - fromMean.x, from(i).y - fromMean.y};
        const Point t{to(i).x - toMean.x, to(i).y - toMean.y};
        dot += f.x * t.x + f.y * t.y;
        cross += f.x * t.y - f.y * t.x;
        length += f.x * f.x + f.y * f.y;
    }
    FaceFrame frame{length > 0.0 ? dot / length : 1.0, length > 0.0 ? cross / length : 0.0, 0.0, 0.0};
    const Point moved = frame.apply(fromMean);
    frame.x = toMean.x - moved.x;
    frame.y = toMean.y - moved.y;
    return frame;
}

/// dlib's number formats, read in blocks. After a failure every answer is zero and `failed` stays set.
class NumberReader {
public:
    explicit NumberReader(std::FILE* file) : file_(file), buffer_(1U << 16U) {}

    [[nodiscard]] bool failed() const { return failed_; }

    /// A control byte (sign, count of bytes), then the magnitude, lowest byte first.
    std::int64_t integer() {
        const unsigned control = byte();
        const unsigned count = control & 0x0FU;
        if (count > 8 || (control & 0x70U) != 0) failed_ = true;
        std::uint64_t magnitude = 0;
        for (unsigned i = 0; i < count && !failed_; ++i) magnitude |= static_cast<std::uint64_t>(byte()) << (8U * i);
        if (magnitude > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) failed_ = true;
        if (failed_) return 0;
        const auto value = static_cast<std::int64_t>(magnitude);
        return (control & 0x80U) != 0 ? -value : value;
    }

    /// A count that must lie in 1...most.
    std::size_t count(std::uint64_t most) {
        const std::int64_t value = integer();
        if (value < 1 || static_cast<std::uint64_t>(value) > most) failed_ = true;
        return failed_ ? 0 : static_cast<std::size_t>(value);
    }

    /// An index below `end`.
    std::uint16_t index(std::uint64_t end) {
        const std::int64_t value = integer();
        if (value < 0 || static_cast<std::uint64_t>(value) >= end) failed_ = true;
        return failed_ ? std::uint16_t{0} : static_cast<std::uint16_t>(value);
    }

    /// Mantissa, then exponent. Only finite numbers belong into a model.
    float real() {
        const std::int64_t mantissa = integer();
        const std::int64_t exponent = integer();
        if (exponent < -kExponentRange || exponent > kExponentRange) failed_ = true;
        if (failed_) return 0.0F;
        const double value =
            static_cast<double>(mantissa) * powers_[static_cast<std::size_t>(exponent + kExponentRange)];
        if (!(std::abs(value) < 1e6)) failed_ = true;
        return failed_ ? 0.0F : static_cast<float>(value);
    }

    /// A column of `rows` numbers with its two sizes before it.
    void column(float* values, std::size_t rows) {
        // The sizes are stored negated, by dlib's convention.
        if (std::abs(integer()) != static_cast<std::int64_t>(rows) || std::abs(integer()) != 1) failed_ = true;
        for (std::size_t i = 0; i < rows && !failed_; ++i) values[i] = real();
    }

private:
    static constexpr std::int64_t kExponentRange = 200;

    static std::array<double, 2 * kExponentRange + 1> powersOfTwo() {
        std::array<double, 2 * kExponentRange + 1> powers{};
        for (std::size_t i = 0; i < powers.size(); ++i)
            powers[i] = std::ldexp(1.0, static_cast<int>(i) - static_cast<int>(kExponentRange));
        return powers;
    }

    unsigned byte() {
        if (position_ == filled_) {
            position_ = 0;
            filled_ = failed_ ? 0 : std::fread(buffer_.data(), 1, buffer_.size(), file_);
            if (filled_ == 0) {
                failed_ = true;
                return 0;
            }
        }
        return buffer_[position_++];
    }

    std::FILE* file_;
    std::vector<std::uint8_t> buffer_;
    std::size_t position_ = 0;
    std::size_t filled_ = 0;
    bool failed_ = false;
    const std::array<double, 2 * kExponentRange + 1> powers_ = powersOfTwo();
};

}  // namespace

/// Reads the parts of a model in the order of the file.
class LandmarkModel::Reader {
public:
    explicit Reader(std::FILE* file) : in_(file) {}

    std::shared_ptr<LandmarkModel> read() {
        const std::shared_ptr<LandmarkModel> model(new LandmarkModel);
        if (in_.integer() != 1) return nullptr;  // the format's version
        in_.column(model->meanShape_.data(), kValues);
        model->stages_.resize(in_.count(kMostStages));
        for (Stage& stage : model->stages_) {
            if (!readForest(stage, model->splitsPerTree_)) return nullptr;
        }
        if (in_.count(kMostStages) != model->stages_.size()) return nullptr;
        for (Stage& stage : model->stages_) {
            stage.probes.resize(in_.count(kMostProbes));
            for (Probe& probe : stage.probes) probe.anchor = in_.index(kLandmarkCount);
        }
        if (in_.count(kMostStages) != model->stages_.size()) return nullptr;
        for (Stage& stage : model->stages_) {
            if (in_.count(kMostProbes) != stage.probes.size()) return nullptr;
            for (Probe& probe : stage.probes) {
                probe.dx = in_.real();
                probe.dy = in_.real();
            }
            const auto missing = [&](const Split& split) {
                return split.first >= stage.probes.size() || split.second >= stage.probes.size();
            };
            if (std::any_of(stage.splits.begin(), stage.splits.end(), missing)) return nullptr;
        }
        return in_.failed() ? nullptr : model;
    }

private:
    bool readForest(Stage& stage, std::size_t& splitsPerTree) {
        stage.trees = in_.count(kMostTrees);
        std::vector<float> leaves;
        for (std::size_t tree = 0; tree < stage.trees; ++tree) {
            const std::size_t splits = in_.count(kMostSplits);
            if (splitsPerTree == 0) splitsPerTree = splits;
            // Full trees of one depth only, so that a path needs no bounds checks.
            if (in_.failed() || splits != splitsPerTree || ((splits + 1) & splits) != 0) return false;
            for (std::size_t i = 0; i < splits; ++i) {
                Split split;
                split.first = in_.index(kMostProbes);
                split.second = in_.index(kMostProbes);
                split.threshold = in_.real();
                stage.splits.push_back(split);
            }
            if (in_.count(kMostSplits + 1) != splits + 1) return false;
            leaves.resize((tree + 1) * (splits + 1) * kValues);
            for (std::size_t i = 0; i <= splits; ++i) in_.column(&leaves[(tree * (splits + 1) + i) * kValues], kValues);
            if (in_.failed()) return false;
        }
        // Sixteen bits hold a leaf to a thousandth of a pixel and better, at half the memory, which is what a
        // prediction spends its time on.
        float largest = 0.0F;
        for (const float value : leaves) largest = std::max(largest, std::abs(value));
        stage.leafScale = largest > 0.0F ? largest / 32767.0F : 1.0F;
        stage.leaves.resize(leaves.size());
        std::transform(leaves.begin(), leaves.end(), stage.leaves.begin(),
                       [&](float value) { return static_cast<std::int16_t>(std::lround(value / stage.leafScale)); });
        return !in_.failed();
    }

    NumberReader in_;
};

Expected<std::shared_ptr<const LandmarkModel>> LandmarkModel::load(const std::string& path) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
    if (!file)
        return Error{"The face landmark model " + path +
                     " cannot be opened; the Debian package libdlib-data installs it"};
    std::shared_ptr<const LandmarkModel> model = Reader(file.get()).read();
    if (!model)
        return Error{"The face landmark model " + path +
                     " is damaged or of another kind; the Debian package libdlib-data installs a good one"};
    return model;
}

FaceFrame FaceFrame::around(Point middle, double side, double tilt) {
    FaceFrame frame{side * std::cos(tilt), side * std::sin(tilt), 0.0, 0.0};
    const Point corner = frame.apply({0.5, 0.5});
    frame.x = middle.x - corner.x;
    frame.y = middle.y - corner.y;
    return frame;
}

/// One evaluation on its way through the cascade.
struct LandmarkModel::Run {
    FaceFrame frame;
    Shape shape{};
    std::vector<float> seen;                  // the probes' pixels
    std::vector<const std::int16_t*> leaves;  // where each tree's path ended
    std::array<std::int32_t, kValues> sum{};  // of the leaves

    static void fetch(const std::int16_t* leaf) {
        constexpr std::size_t kCacheLine = 64 / sizeof(std::int16_t);
        for (std::size_t i = 0; i < kValues; i += kCacheLine) __builtin_prefetch(leaf + i);
    }
    void add(const std::int16_t* leaf) {
        for (std::size_t i = 0; i < kValues; ++i) sum[i] += leaf[i];
    }
};

void LandmarkModel::followPaths(const GreyImage& image, const Stage& stage, Run& run) const {
    // Where the probes lie now: turned and scaled with the shape as it is known so far.
    const FaceFrame turn = similarity(
        kLandmarkCount, [&](std::size_t i) { return pointOf(meanShape_, i); },
        [&](std::size_t i) { return pointOf(run.shape, i); });
    const auto ta = static_cast<float>(turn.a);
    const auto tb = static_cast<float>(turn.b);
    const auto fa = static_cast<float>(run.frame.a);
    const auto fb = static_cast<float>(run.frame.b);
    // Half a pixel for rounding to the nearest one.
    const auto fx = static_cast<float>(run.frame.x) + 0.5F;
    const auto fy = static_cast<float>(run.frame.y) + 0.5F;
    run.seen.resize(stage.probes.size());
    for (std::size_t i = 0; i < stage.probes.size(); ++i) {
        const Probe& probe = stage.probes[i];
        const float x = ta * probe.dx - tb * probe.dy + run.shape[2U * probe.anchor];
        const float y = tb * probe.dx + ta * probe.dy + run.shape[2U * probe.anchor + 1U];
        const float column = fa * x - fb * y + fx;
        const float row = fb * x + fa * y + fy;
        const bool inside = column >= 0.0F && row >= 0.0F && column < static_cast<float>(image.width) &&
                            row < static_cast<float>(image.height);
        const auto pixel = [&] {
            return image.pixels[static_cast<std::size_t>(row) * static_cast<std::size_t>(image.width) +
                                static_cast<std::size_t>(column)];
        };
        run.seen[i] = inside ? static_cast<float>(pixel()) : 0.0F;
    }
    run.leaves.resize(stage.trees);
    const std::size_t leavesPerTree = splitsPerTree_ + 1;
    for (std::size_t tree = 0; tree < stage.trees; ++tree) {
        const Split* const splits = &stage.splits[tree * splitsPerTree_];
        std::size_t node = 0;
        while (node < splitsPerTree_) {
            const Split& split = splits[node];
            node = 2 * node + (run.seen[split.first] - run.seen[split.second] > split.threshold ? 1U : 2U);
        }
        run.leaves[tree] = &stage.leaves[(tree * leavesPerTree + node - splitsPerTree_) * kValues];
    }
}

LandmarkPoints LandmarkModel::predict(const GreyImage& image, std::span<const FaceFrame> frames,
                                      std::size_t stages) const {
    std::vector<Run> runs(frames.size());
    for (std::size_t i = 0; i < frames.size(); ++i) {
        runs[i].frame = frames[i];
        runs[i].shape = meanShape_;
    }
    // Stage by stage for all, because runs from similar boxes end in mostly the same leaves.
    for (std::size_t level = 0; level < std::min(stages, stages_.size()); ++level) {
        const Stage& stage = stages_[level];
        for (Run& run : runs) followPaths(image, stage, run);
        // The leaves lie far apart in memory: fetch them some trees ahead, and add a tree's leaves of all runs while
        // they are near.
        for (std::size_t tree = 0; tree < stage.trees + kAhead; ++tree) {
            for (Run& run : runs) {
                if (tree < stage.trees) Run::fetch(run.leaves[tree]);
                if (tree >= kAhead) run.add(run.leaves[tree - kAhead]);
            }
        }
        for (Run& run : runs) {
            for (std::size_t i = 0; i < kValues; ++i) run.shape[i] += static_cast<float>(run.sum[i]) * stage.leafScale;
            run.sum = {};
        }
    }
    LandmarkPoints mean{};
    for (const Run& run : runs) {
        for (std::size_t i = 0; i < kLandmarkCount; ++i) {
            const Point point = run.frame.apply(pointOf(run.shape, i));
            mean[i].x += point.x / static_cast<double>(runs.size());
            mean[i].y += point.y / static_cast<double>(runs.size());
        }
    }
    return mean;
}

FaceFrame LandmarkModel::frameOf(const LandmarkPoints& points) const {
    return similarity(
        kLandmarkCount, [&](std::size_t i) { return pointOf(meanShape_, i); },
        [&](std::size_t i) { return points[i]; });
}

}  // namespace selvio::hog
