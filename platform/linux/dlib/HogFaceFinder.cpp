#include "HogFaceFinder.h"

#include <dlib/image_processing/frontal_face_detector.h>
#include <dlib/image_transforms.h>

#include <algorithm>
#include <array>
#include <exception>
#include <utility>

namespace selvio::hog {
namespace {

// Levels a quarter smaller each: half the work of the usual pyramid at no loss for faces that fill a good part of the
// picture.
using Scanner4 = dlib::scan_fhog_pyramid<dlib::pyramid_down<4>>;

struct Bank {
    Scanner4::fhog_filterbank filters;
    double threshold = 0.0;
    double tilt = 0.0;
};

// In the order of the filters: frontal, looking to either side, tilted to either side. What the last two like best was
// measured on a turned portrait.
constexpr std::array<double, 5> kTilts{0.0, 0.0, 0.0, -30.0, 30.0};

}  // namespace

struct HogFilters::Banks {
    Scanner4 configuration;
    dlib::test_box_overlap overlap;
    std::vector<Bank> banks;  // the frontal one first
};

HogFilters::HogFilters(std::unique_ptr<const Banks> banks) : banks_(std::move(banks)) {}

HogFilters::~HogFilters() = default;

std::shared_ptr<const HogFilters> HogFilters::load() try {
    const dlib::frontal_face_detector detector = dlib::get_frontal_face_detector();
    auto banks = std::make_unique<Banks>();
    const auto& scanner = detector.get_scanner();
    banks->configuration.set_detection_window_size(scanner.get_detection_window_width(),
                                                   scanner.get_detection_window_height());
    banks->configuration.set_padding(scanner.get_padding());
    banks->configuration.set_cell_size(scanner.get_cell_size());
    banks->configuration.set_nuclear_norm_regularization_strength(scanner.get_nuclear_norm_regularization_strength());
    banks->overlap = detector.get_overlap_tester();
    for (unsigned long i = 0; i < detector.num_detectors(); ++i) {
        const auto& weights = detector.get_w(i);
        banks->banks.push_back({banks->configuration.build_fhog_filterbank(weights), weights(weights.size() - 1),
                                i < kTilts.size() ? kTilts[i] : 0.0});
    }
    if (banks->banks.empty()) return nullptr;
    return std::shared_ptr<const HogFilters>(new HogFilters(std::move(banks)));
} catch (const std::exception&) {
    return nullptr;
}

struct HogFaceFinder::Scanner {
    Scanner4 scanner;
    dlib::array2d<unsigned char> image;

    [[nodiscard]] std::vector<HogFace> find(const HogFilters::Banks& banks, std::size_t first, std::size_t end,
                                            double threshold) const;
};

HogFaceFinder::HogFaceFinder(std::shared_ptr<const HogFilters> filters)
    : filters_(std::move(filters)), scanner_(std::make_unique<Scanner>()) {
    scanner_->scanner.copy_configuration(filters_->banks_->configuration);
}

HogFaceFinder::~HogFaceFinder() = default;

void HogFaceFinder::load(const GreyImage& image, int levels) {
    auto& copy = scanner_->image;
    copy.set_size(image.height, image.width);
    for (long row = 0; row < image.height; ++row) {
        const std::uint8_t* const from = image.pixels.data() + row * image.width;
        std::copy(from, from + image.width, &copy[row][0]);
    }
    scanner_->scanner.set_max_pyramid_levels(static_cast<unsigned long>(levels));
    scanner_->scanner.load(copy);
}

std::vector<HogFace> HogFaceFinder::Scanner::find(const HogFilters::Banks& banks, std::size_t first, std::size_t end,
                                                  double threshold) const {
    struct Hit {
        double score = 0.0;
        dlib::rectangle box;
        double tilt = 0.0;
    };
    std::vector<Hit> all;
    std::vector<std::pair<double, dlib::rectangle>> some;
    for (std::size_t i = first; i < end; ++i) {
        const double own = banks.banks[i].threshold;
        scanner.detect(banks.banks[i].filters, some, own + threshold);
        for (const auto& [score, box] : some) all.push_back({score - own, box, banks.banks[i].tilt});
    }
    std::sort(all.begin(), all.end(), [](const Hit& a, const Hit& b) { return a.score > b.score; });
    std::vector<dlib::rectangle> kept;
    std::vector<HogFace> faces;
    for (const Hit& hit : all) {
        const dlib::rectangle& box = hit.box;
        const auto same = [&](const dlib::rectangle& other) { return banks.overlap(other, box); };
        if (std::any_of(kept.begin(), kept.end(), same)) continue;
        kept.push_back(box);
        faces.push_back({static_cast<double>(box.left()), static_cast<double>(box.top()),
                         static_cast<double>(box.right() - box.left()), hit.score, hit.tilt});
    }
    return faces;
}

std::vector<HogFace> HogFaceFinder::findFrontal(double threshold) {
    return scanner_->find(*filters_->banks_, 0, 1, threshold);
}

std::vector<HogFace> HogFaceFinder::findTurned(double threshold) {
    return scanner_->find(*filters_->banks_, 1, filters_->banks_->banks.size(), threshold);
}

}  // namespace selvio::hog
