// The vision step (face search on every frame, landmarks, smile) beside its two neural networks alone.
//
//     bench_vision [FOLDER] [benchmark's own options]      FOLDER: more portraits, one face each
//
// Prints start and memory, the times and their ratios, then what the speed must not cost: how still the yaw ratio is
// and which faces are found, for one look at each face and for two.
#include <SelvioFacialCapture/rules/FaceChecks.h>
#include "bench/Ratios.h"

#include "bench/TestPictures.h"
#include "platform/linux/vision/Network.h"

#include <SelvioFacialCapture/linux/Vision.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>
#include <string>

namespace {

long residentKilobytes() {
    std::ifstream status("/proc/self/status");
    long kilobytes = 0;
    for (std::string word; status >> word;) {
        if (word == "VmRSS:") status >> kilobytes;
    }
    return kilobytes;
}

using namespace selvio;
using namespace selvio::test;

struct Adapter {
    std::shared_ptr<SequenceRequestHandler> handler;
    std::shared_ptr<FaceDetector> smiles;

    std::vector<FaceObservation> frame(const std::shared_ptr<const PixelBuffer>& buffer) const {
        return answered(handler->perform({.pixelBuffer = buffer, .exifOrientation = 5}));
    }
    /// Landmarks of the frame, then the smile of the same frame.
    std::vector<FaceObservation> step(const std::shared_ptr<const PixelBuffer>& buffer) const {
        auto faces = frame(buffer);
        benchmark::DoNotOptimize(smiles->featuresInImage({.bitmap = buffer}, true));
        return faces;
    }
    std::vector<FaceObservation> stillImage(const std::shared_ptr<const PixelBuffer>& buffer) const {
        return answered(handler->perform({.pixelBuffer = buffer, .exifOrientation = 5, .isStillImage = true}));
    }

    static std::vector<FaceObservation> answered(Expected<FaceLandmarksResult> result) {
        if (!result) {
            std::fprintf(stderr, "%s\n", result.error().localizedDescription.c_str());
            std::exit(5);
        }
        return std::move(result.value().observations);
    }
};

struct Kind {
    const char* name;
    Adapter (*make)();
};
const Kind kKinds[] = {
    {"mesh",
     [] {
         return Adapter{makeSequenceRequestHandler(), makeFaceDetector()};
     }},
    {"two looks",
     [] {
         VisionOptions options;
         options.refineLandmarks = true;
         return Adapter{makeSequenceRequestHandler(options), makeFaceDetector(options)};
     }},
};

void visionStep(benchmark::State& state, const Kind& kind, int width, int height, bool yuv) {
    const Picture picture = frameOf(width, height, {Person{}});
    const auto buffer = yuv ? to420v(picture) : toBgra(picture);
    const Adapter adapter = kind.make();
    (void)adapter.step(buffer);
    for (auto _ : state) {
        if (adapter.step(buffer).size() != 1) state.SkipWithError("the face was not found");
    }
}

void stillImage(benchmark::State& state, int width, int height) {
    const auto buffer = toBgra(frameOf(width, height, {Person{}}));
    const Adapter adapter = kKinds[0].make();
    for (auto _ : state) benchmark::DoNotOptimize(adapter.stillImage(buffer));
}

/// What no arrangement around them can save: one run of each network.
void networksAlone(benchmark::State& state) {
    const VisionOptions options;
    std::vector<std::shared_ptr<const Network>> networks;
    for (const auto& path : {options.detectionModelPath, options.meshModelPath})
        networks.push_back(Network::make(readModel(path).value()).value());
    for (auto _ : state) {
        for (const auto& network : networks) network->borrow().run();
    }
}

/// The face checks' measures of a face in a frame that fills a screen of the same size.
std::optional<rules::FaceMeasures> measuresOf(const std::vector<FaceObservation>& faces, Size screen) {
    if (faces.size() != 1) return std::nullopt;
    const Rect& box = faces[0].boundingBox;
    const auto points = [&](const std::optional<FaceLandmarkRegion>& region) {
        std::vector<Point> result;
        for (const Point p : region->normalizedPoints)
            result.push_back({(box.y + p.y * box.height) * screen.width, (box.x + p.x * box.width) * screen.height});
        return result;
    };
    const auto& landmarks = *faces[0].landmarks;
    rules::FaceChecksInput input;
    input.points = {points(landmarks.faceContour), points(landmarks.nose), points(landmarks.outerLips)};
    input.biggerScreenSide = screen.height;
    input.smallerScreenSide = screen.width;
    return rules::checkFace(input).measures;
}

std::vector<Portrait> portraits(const std::string& folder) {
    std::vector<Portrait> result{samplePortrait()};
    if (folder.empty()) return result;
    const Adapter adapter = kKinds[0].make();
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        Picture picture = loadPicture(file);
        const auto faces = adapter.frame(toBgra(picture));
        if (faces.size() != 1) continue;
        const Rect& box = faces[0].boundingBox;
        const auto& contour = faces[0].landmarks->faceContour->normalizedPoints;
        const auto inPicture = [&](Point p) {  // the view is mirrored
            return Point{picture.width * (1.0 - (box.y + p.y * box.height)),
                         picture.height * (box.x + p.x * box.width)};
        };
        const Point left = inPicture(contour[0]);
        const Point right = inPicture(contour[16]);
        const double jaw = std::hypot(right.x - left.x, right.y - left.y);
        if (jaw < 50) continue;
        result.push_back({std::move(picture), (left.x + right.x) / 2, (left.y + right.y) / 2, jaw,
                          std::atan2(right.y - left.y, right.x - left.x) * 180 / std::acos(-1.0)});
    }
    return result;
}

Picture brightened(Picture picture, double factor) {
    for (auto& value : picture.rgb)
        value = static_cast<std::uint8_t>(std::clamp(std::lround(value * factor), 0L, 255L));
    return picture;
}

void printHeader(const char* title) {
    std::printf("\n| %s |", title);
    for (const Kind& kind : kKinds) std::printf(" %s |", kind.name);
    std::printf("\n|---|");
    for ([[maybe_unused]] const Kind& kind : kKinds) std::printf("---|");
    std::printf("\n");
}

/// One row: how many of the pictures pass, an adapter a column. Each picture stands on its own.
template <typename Passes>
void printRow(const std::string& title, const std::vector<std::shared_ptr<const PixelBuffer>>& pictures,
              Passes passes) {
    std::printf("| %s |", title.c_str());
    for (const Kind& kind : kKinds) {
        const auto count =
            std::count_if(pictures.begin(), pictures.end(), [&](const auto& p) { return passes(kind.make(), p); });
        std::printf(" %td of %zu |", count, pictures.size());
    }
    std::printf("\n");
    std::fflush(stdout);
}

using Buffers = std::vector<std::shared_ptr<const PixelBuffer>>;

void printDetectionRates(const std::vector<Portrait>& all) {
    printHeader("frames in which exactly one face is found");
    const auto one = [](const Adapter& adapter, const auto& picture) { return adapter.frame(picture).size() == 1; };
    for (int percent = 40; percent <= 90; percent += 10) {
        Buffers pictures;
        for (const Portrait& portrait : all) {
            for (const double roll : {-20.0, 0.0, 20.0}) {
                pictures.push_back(toBgra(withNoise(
                    frameOf(720, 1280, {Person{.y = 0.45, .jaw = percent / 100.0, .roll = roll}}, portrait), 5.0, 3)));
            }
        }
        printRow("jaw " + std::to_string(percent) + " % of the width, roll 0 and 20 degrees", pictures, one);
    }
    for (const int roll : {10, 30, 40, 50, 60, 90}) {
        Buffers pictures;
        for (const Portrait& portrait : all) {
            for (const double side : {-1.0, 1.0}) {
                for (const double jaw : {0.4, 0.65})
                    pictures.push_back(
                        toBgra(frameOf(720, 1280, {Person{.y = 0.45, .jaw = jaw, .roll = side * roll}}, portrait)));
            }
        }
        printRow("roll " + std::to_string(roll) + " degrees", pictures, one);
    }
    for (const double light : {0.12, 0.05, 2.2}) {
        Buffers pictures;
        for (const Portrait& portrait : all) {
            for (const double jaw : {0.45, 0.65, 0.85}) {
                pictures.push_back(toBgra(
                    withNoise(brightened(frameOf(720, 1280, {Person{.y = 0.45, .jaw = jaw}}, portrait), light), 2, 1)));
            }
        }
        printRow("brightness x" + std::to_string(light).substr(0, 4), pictures, one);
    }
}

void printSecondFaces(const std::vector<Portrait>& all) {
    printHeader("second face seen within 15 frames");
    for (const double jaw : {0.12, 0.15, 0.17, 0.20, 0.25}) {
        Buffers pictures;
        for (const Portrait& portrait : all) {
            for (const auto& [x, y] : {std::pair{0.18, 0.15}, {0.8, 0.12}, {0.85, 0.85}}) {
                const Person near{.x = 0.5, .y = 0.48, .jaw = 0.5};
                pictures.push_back(to420v(frameOf(720, 1280, {Person{.x = x, .y = y, .jaw = jaw}, near}, portrait)));
            }
        }
        char title[40];
        std::snprintf(title, sizeof title, "%.0f %% of the width", jaw * 100);
        printRow(title, pictures, [](const Adapter& adapter, const auto& picture) {
            const auto alone = to420v(frameOf(720, 1280, {Person{.x = 0.5, .y = 0.48, .jaw = 0.5}}));
            (void)adapter.frame(alone);
            for (int i = 0; i < 15; ++i) {
                if (adapter.frame(picture).size() == 2) return true;
            }
            return false;
        });
    }
}

/// Single pictures with one small face somewhere on a lively background, and with three.
void printStills(const std::vector<Portrait>& all) {
    printHeader("faces of still pictures, each once");
    std::mt19937 random(7);
    std::uniform_real_distribution<double> place(0.2, 0.8);
    for (const auto& [width, height] : {std::pair{720, 1280}, {1600, 1200}, {3000, 4000}}) {
        for (const double jaw : {0.06, 0.08, 0.10, 0.14, 0.2, 0.3, 0.5}) {
            Buffers pictures;
            for (std::size_t i = 0; i<all.size(); i += width> 2000 ? 8 : 2) {
                const Person person{.x = place(random), .y = place(random), .jaw = jaw};
                pictures.push_back(toBgra(withPeople(frameOf(width, height, {}), {person}, all[i])));
            }
            char title[60];
            std::snprintf(title, sizeof title, "%dx%d, %.0f %% of the width", width, height, jaw * 100);
            printRow(title, pictures, [](const Adapter& adapter, const auto& picture) {
                return adapter.stillImage(picture).size() == 1;
            });
        }
    }
    Buffers groups;
    for (const Portrait& portrait : all) {
        groups.push_back(
            toBgra(frameOf(1600, 1200,
                           {Person{.x = 0.2, .y = 0.3, .jaw = 0.06}, Person{.x = 0.45, .y = 0.4, .jaw = 0.09},
                            Person{.x = 0.75, .y = 0.5, .jaw = 0.13}, Person{.x = 0.2, .y = 0.7, .jaw = 0.2}},
                           portrait)));
    }
    printRow("four faces, 6 to 20 %", groups,
             [](const Adapter& adapter, const auto& picture) { return adapter.stillImage(picture).size() == 4; });
}

/// The same face moved by fractions of a pixel, with sensor noise. Frontal portraits only: the ratio of a turned head
/// grows with the turn, and so does all that it does.
void printYawJitter(const std::vector<Portrait>& all) {
    printHeader("standard deviation of the yaw ratio (root mean square over the portraits)");
    std::vector<Adapter> adapters;
    for (const Kind& kind : kKinds) adapters.push_back(kind.make());
    for (const double jaw : {0.4, 0.55, 0.7, 0.9}) {
        std::vector<double> variances(adapters.size());
        int portraits = 0;
        for (const Portrait& portrait : all) {
            std::mt19937 random(1);
            std::uniform_real_distribution<double> shift(-1.5, 1.5);
            std::vector<std::vector<double>> ratios(adapters.size());
            for (unsigned i = 0; i < 20; ++i) {
                const Person person{.x = 0.5 + shift(random) / 720, .y = 0.45 + shift(random) / 1280, .jaw = jaw};
                const auto buffer = to420v(withNoise(frameOf(720, 1280, {person}, portrait), 5.0, i));
                for (std::size_t k = 0; k < adapters.size(); ++k) {
                    const auto measures = measuresOf(adapters[k].frame(buffer), {720, 1280});
                    if (measures) ratios[k].push_back(measures->yawRatio);
                }
                if (!ratios[0].empty() && ratios[0].front() > 1.4) break;
            }
            if (ratios[0].size() < 20) continue;
            ++portraits;
            for (std::size_t k = 0; k < adapters.size(); ++k) {
                const auto count = static_cast<double>(ratios[k].size());
                const double mean = std::accumulate(ratios[k].begin(), ratios[k].end(), 0.0) / count;
                for (const double ratio : ratios[k]) variances[k] += (ratio - mean) * (ratio - mean) / count;
            }
        }
        std::printf("| jaw %.0f %%, %d portraits |", jaw * 100, portraits);
        for (const double variance : variances) std::printf(" %.4f |", std::sqrt(variance / portraits));
        std::printf("\n");
        std::fflush(stdout);
    }
}

double milliseconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - since).count();
}

/// From the start of loading to the first judged frame, and the memory that stays.
void printStart(const Kind& kind, const std::shared_ptr<const PixelBuffer>& small,
                const std::shared_ptr<const PixelBuffer>& large) {
    const long before = residentKilobytes();
    const auto start = std::chrono::steady_clock::now();
    const Adapter adapter = kind.make();
    (void)adapter.step(small);
    const double first = milliseconds(start);
    for (int i = 0; i < 30; ++i) (void)adapter.step(i % 2 == 0 ? small : large);
    std::printf("%s: first frame judged %.0f ms after loading began, %.1f MiB more in use after 31 frames\n", kind.name,
                first, static_cast<double>(residentKilobytes() - before) / 1024.0);
}

}  // namespace

int main(int argc, char** argv) {
    const bool folderGiven = argc > 1 && argv[1][0] != '-';
    const std::string folder = folderGiven ? argv[1] : "";
    if (folderGiven) argv[1] = argv[0];
    {
        const auto small = toBgra(frameOf(720, 1280, {Person{}}));
        const auto large = to420v(frameOf(1080, 1920, {Person{}}));
        printStart(kKinds[0], small, large);
    }
    for (const auto& [width, height] : {std::pair{720, 1280}, {1600, 1200}, {3000, 4000}}) {
        const std::string name = "still image " + std::to_string(width) + "x" + std::to_string(height);
        benchmark::RegisterBenchmark(name.c_str(), stillImage, width, height)->Unit(benchmark::kMillisecond);
    }
    std::vector<bench::Ratio> ratios;
    benchmark::RegisterBenchmark("networks", networksAlone)->Unit(benchmark::kMillisecond);
    for (const auto& [width, height] : {std::pair{720, 1280}, {1080, 1920}}) {
        for (const bool yuv : {false, true}) {
            const std::string frame =
                std::to_string(width) + "x" + std::to_string(height) + (yuv ? " 420v/" : " BGRA/");
            for (const Kind& kind : kKinds) {
                benchmark::RegisterBenchmark((frame + kind.name).c_str(), visionStep, kind, width, height, yuv)
                    ->Unit(benchmark::kMillisecond);
                ratios.push_back(
                    {frame + kind.name + " against the networks alone", frame + kind.name, "networks", 1.5});
            }
        }
    }
    if (const int code = bench::runWithRatios(argc - (folderGiven ? 1 : 0), argv + (folderGiven ? 1 : 0), ratios);
        code != 0)
        return code;
    const auto all = portraits(folder);
    std::printf("\n%zu portraits\n", all.size());
    printYawJitter(all);
    printDetectionRates(all);
    printSecondFaces(all);
    printStills(all);
    return 0;
}
