// The vision step (grey view, face search on every frame, landmarks, smile) beside the usual ways to do it.
//
// Prints the times and their ratios, then what the speed must not cost: how still the yaw ratio is and which faces are
// found.
#include "Ratios.h"
#include "platform/linux/vision/GreyView.h"
#include "vision/TestPictures.h"

#include <SelvioFacialCapture/linux/Vision.h>

#include <benchmark/benchmark.h>
#include <dlib/image_processing.h>
#include <dlib/image_processing/frontal_face_detector.h>
#ifdef SELVIO_HAAR_CASCADE
#include <opencv2/objdetect.hpp>
#endif

#include <cmath>
#include <cstdio>
#include <random>
#include <string>

namespace {

using namespace selvio;
using namespace selvio::test;

using DlibImage = dlib::array2d<dlib::rgb_pixel>;

DlibImage toDlib(const Picture& picture) {
    DlibImage image(picture.height, picture.width);
    for (long y = 0; y < picture.height; ++y) {
        for (long x = 0; x < picture.width; ++x) {
            const std::uint8_t* const p = &picture.rgb[static_cast<std::size_t>((y * picture.width + x) * 3)];
            image[y][x] = {p[0], p[1], p[2]};
        }
    }
    return image;
}

/// The usual arrangement: dlib's detector and predictor on the full frame.
struct Stock {
    dlib::frontal_face_detector detector = dlib::get_frontal_face_detector();
    dlib::shape_predictor predictor;

    Stock() { dlib::deserialize(kDefaultLandmarkModelPath) >> predictor; }

    std::size_t operator()(const DlibImage& image) {
        const auto faces = detector(image);
        for (const auto& face : faces) benchmark::DoNotOptimize(predictor(image, face));
        return faces.size();
    }
};

Stock& stock() {
    static Stock instance;
    return instance;
}

/// The component's way, through its ports: landmarks of the frame, then the smile of the same frame.
struct Ours {
    std::shared_ptr<SequenceRequestHandler> handler = makeSequenceRequestHandler();
    std::shared_ptr<FaceDetector> smiles = makeFaceDetector();

    std::vector<FaceObservation> operator()(const std::shared_ptr<const PixelBuffer>& buffer) {
        const auto request = std::make_shared<FaceLandmarksRequest>(nullptr);
        if (const auto error = handler->performRequests({request}, buffer, 5)) {
            std::fprintf(stderr, "%s\n", error->localizedDescription.c_str());
            std::exit(5);
        }
        benchmark::DoNotOptimize(smiles->featuresInImage({.bitmap = buffer}, true));
        return request->results().value_or(std::vector<FaceObservation>{});
    }
};

void visionStep(benchmark::State& state, int width, int height, bool yuv) {
    const Picture picture = frameOf(width, height, {Person{}});
    const auto buffer = yuv ? to420v(picture) : toBgra(picture);
    Ours ours;
    for (auto _ : state) {
        if (ours(buffer).size() != 1) state.SkipWithError("the face was not found");
    }
}

void stockStep(benchmark::State& state, int width, int height) {
    const DlibImage image = toDlib(frameOf(width, height, {Person{}}));
    stock();  // loads its models outside the measured time
    for (auto _ : state) {
        if (stock()(image) != 1) state.SkipWithError("the face was not found");
    }
}

#ifdef SELVIO_HAAR_CASCADE
void haarStep(benchmark::State& state, int width, int height, double smallest) {
    const auto buffer = toBgra(frameOf(width, height, {Person{}}));
    cv::CascadeClassifier cascade(SELVIO_HAAR_CASCADE);
    GreyViewMaker maker;
    GreyImage grey;
    const int smallHeight = 640 * height / width;
    std::vector<cv::Rect> faces;
    for (auto _ : state) {
        if (!maker.make(*buffer, {0, 0, width, height}, {false, true, false}, 640, smallHeight, grey))
            state.SkipWithError("no grey view");
        const int side = static_cast<int>(smallest * 640);
        cascade.detectMultiScale(cv::Mat(smallHeight, 640, CV_8UC1, grey.pixels.data()), faces, 1.1, 3, 0,
                                 cv::Size(side, side));
    }
    state.counters["faces"] = static_cast<double>(faces.size());
}
#endif

double yawRatioOf(const FaceObservation& face) {
    const auto& nose = face.landmarks->nose->normalizedPoints;
    const double right = std::abs(nose[6].y - nose[4].y);
    const double left = std::abs(nose[2].y - nose[4].y);
    return std::max(left, right) / std::min(left, right);
}

/// The same face moved by fractions of a pixel, with sensor noise.
void printYawJitter() {
    std::printf("\n| jaw width | yaw ratio, mean | standard deviation (target 0.02) |\n|---|---|---|\n");
    Ours ours;
    std::mt19937 random(1);
    std::uniform_real_distribution<double> shift(-1.5, 1.5);
    for (const double jaw : {0.4, 0.55, 0.7, 0.9}) {
        constexpr int kFrames = 60;
        double sum = 0.0;
        double squares = 0.0;
        int found = 0;
        for (unsigned i = 0; i < kFrames; ++i) {
            const Person person{.x = 0.5 + shift(random) / 720, .y = 0.45 + shift(random) / 1280, .jaw = jaw};
            const auto faces = ours(to420v(withNoise(frameOf(720, 1280, {person}), 5.0, i)));
            if (faces.size() != 1) continue;
            const double ratio = yawRatioOf(faces[0]);
            ++found;
            sum += ratio;
            squares += ratio * ratio;
        }
        const double mean = sum / found;
        std::printf("| %.0f %% | %.3f | %.4f (%d of %d frames) |\n", jaw * 100, mean,
                    std::sqrt(squares / found - mean * mean), found, kFrames);
    }
}

/// Both detectors over sizes, tilts and places, each frame on its own.
void printDetectionRates() {
    std::printf("\n| jaw width | frames | found here | found by stock dlib |\n|---|---|---|---|\n");
    for (int percent = 40; percent <= 90; percent += 10) {
        int frames = 0;
        int here = 0;
        int there = 0;
        for (const double roll : {-20.0, -10.0, 0.0, 10.0, 20.0}) {
            for (const double x : {0.48, 0.53}) {
                const Picture picture = withNoise(
                    frameOf(720, 1280, {Person{.x = x, .y = 0.45, .jaw = percent / 100.0, .roll = roll}}), 5.0, 3);
                ++frames;
                here += Ours()(toBgra(picture)).size() == 1 ? 1 : 0;
                there += stock()(toDlib(picture)) == 1 ? 1 : 0;
            }
        }
        std::printf("| %d %% | %d | %d | %d |\n", percent, frames, here, there);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (const auto error = waitForVisionModels()) {
        std::fprintf(stderr, "%s\n", error->localizedDescription.c_str());
        return 5;
    }
    std::vector<bench::Ratio> ratios;
    for (const auto& [width, height] : {std::pair{720, 1280}, {1080, 1920}}) {
        const std::string size = std::to_string(width) + "x" + std::to_string(height);
        const std::string stockName = "stock dlib on the full frame/" + size;
        benchmark::RegisterBenchmark(stockName.c_str(), stockStep, width, height)->Unit(benchmark::kMillisecond);
        for (const bool yuv : {false, true}) {
            const std::string name = "vision step/" + size + (yuv ? "/420v" : "/BGRA");
            benchmark::RegisterBenchmark(name.c_str(), visionStep, width, height, yuv)->Unit(benchmark::kMillisecond);
            ratios.push_back({name + " against stock dlib", name, stockName, 0.05});
        }
    }
#ifdef SELVIO_HAAR_CASCADE
    for (const auto& [name, smallest] :
         {std::pair{"Haar cascade at 640, any size", 0.0}, {"Haar cascade at 640, faces from 30 %", 0.3}}) {
        benchmark::RegisterBenchmark(name, haarStep, 720, 1280, smallest)->Unit(benchmark::kMillisecond);
        ratios.push_back(
            {std::string("vision step/720x1280/BGRA against ") + name, "vision step/720x1280/BGRA", name, 1.0});
    }
#endif
    if (const int code = bench::runWithRatios(argc, argv, ratios); code != 0) return code;
    printYawJitter();
    printDetectionRates();
    return 0;
}
