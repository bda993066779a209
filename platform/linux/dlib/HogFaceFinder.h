// The sliding-window face detector over histograms of gradients.
#pragma once

#include "GreyView.h"

#include <memory>
#include <vector>

namespace selvio::hog {

/// The trained filters: a frontal face, and the turned ones (looking to either side, tilted to either side). Immutable;
/// shared by the finders.
class HogFilters {
public:
    /// Unpacks the filters, which takes some tenths of a second. Null if that fails.
    static std::shared_ptr<const HogFilters> load();
    ~HogFilters();

private:
    friend class HogFaceFinder;
    struct Banks;
    explicit HogFilters(std::unique_ptr<const Banks> banks);
    std::unique_ptr<const Banks> banks_;
};

/// A square that the detector took for a face, in pixels; the centre of the picture's first pixel is 0, 0.
struct HogFace {
    double left = 0.0;
    double top = 0.0;
    double side = 0.0;
    double score = 0.0;  ///< how far above the filter's own threshold
    double tilt = 0.0;   ///< degrees clockwise for which the filter was trained
};

/// One thread at a time.
class HogFaceFinder {
public:
    /// The window is 80 pixels wide: smaller faces are not found.
    static constexpr int kSmallestFace = 80;

    explicit HogFaceFinder(std::shared_ptr<const HogFilters> filters);
    ~HogFaceFinder();

    /// Takes the picture in for the searches that follow. Each level of sizes beyond the first finds faces a third
    /// larger than the one before.
    void load(const GreyImage& image, int levels = kAllLevels);
    static constexpr int kAllLevels = 1000;
    /// Faces in the picture taken in last whose score exceeds `threshold`, the best first, one box a face.
    [[nodiscard]] std::vector<HogFace> findFrontal(double threshold);
    [[nodiscard]] std::vector<HogFace> findTurned(double threshold);

private:
    struct Scanner;
    const std::shared_ptr<const HogFilters> filters_;
    const std::unique_ptr<Scanner> scanner_;
};

}  // namespace selvio::hog
