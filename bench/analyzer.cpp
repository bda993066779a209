// What the analyzer adds to a frame: the refusal of one that comes too early, the steps of one that is analysed, and
// the rules alone.
#include <SelvioFacialCapture/SelvioFacialCapture.h>
#include <SelvioFacialCapture/base/SerialQueue.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <vector>

#include <SelvioFacialCapture/rules/FaceChecks.h>
#include <SelvioFacialCapture/rules/PreviewGeometry.h>
#include "analyzer/rules/GoodFrameGate.h"
#include "support/FakeDevice.h"
#include "support/FakeVision.h"
#include "support/ManualQueue.h"

namespace {

std::atomic<long> allocations{0};

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
    ++allocations;
    if (void* const block = std::malloc(size)) return block;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
    std::free(block);
}
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}

namespace {

using namespace selvio;

/// A face that nothing is wrong with but its size, so that every frame ends in statuses, in the detector's coordinates
/// of a 1080 x 1920 screen.
FaceObservation smallFace() {
    FaceLandmarkRegion contour{std::vector<Point>(17, Point{1300.0 / 1920, 0.5})};
    contour.normalizedPoints[16] = {800.0 / 1920, 0.35};
    contour.normalizedPoints[0] = {800.0 / 1920, 0.65};
    FaceLandmarkRegion nose{std::vector<Point>(9, Point{1000.0 / 1920, 0.5})};
    nose.normalizedPoints[2] = {1000.0 / 1920, 0.46};
    nose.normalizedPoints[6] = {1000.0 / 1920, 0.54};
    return {.boundingBox = {0, 0, 1, 1},
            .landmarks = FaceLandmarks{contour, nose, FaceLandmarkRegion{std::vector<Point>(14, Point{0.6, 0.5})}}};
}

Platform fakePlatform(const std::shared_ptr<FakeSequenceRequestHandler>& vision) {
    Platform platform = makePortablePlatform();
    platform.device = std::make_shared<FakeDevice>();
    platform.screen = std::make_shared<FakeScreen>();
    platform.makeSequenceRequestHandler = [vision] { return vision; };
    return platform;
}

void refusedFrame(benchmark::State& state) {
    Platform platform = fakePlatform(std::make_shared<FakeSequenceRequestHandler>());
    platform.makeSerialQueue = [](const std::string& label) {
        return std::make_shared<ManualQueue>(label);
    };  // never run: the frame stays held
    const auto analyzer =
        SelvioFacialCaptureAnalyzer::initWithParameters(std::make_shared<SelvioFacialCaptureParameters>(), platform);
    const auto frame = SampleBuffer::makeVideo(PixelBuffer::create(720, 1280, kPixelFormat420v));
    analyzer->analyzeSampleBuffer(frame);
    const long before = allocations;
    for (auto _ : state) analyzer->analyzeSampleBuffer(frame);
    state.counters["allocations"] = static_cast<double>(allocations - before);
}

// From submission to the delegate's turn on the main queue, over two threads that wait in between. The frame is tiny,
// so that its copy costs nothing.
void analysedFrame(benchmark::State& state) {
    const auto vision = std::make_shared<FakeSequenceRequestHandler>();
    vision->setObservations(std::vector<FaceObservation>{smallFace()});
    const auto mainQueue = std::make_shared<MainQueue>();
    Platform platform = fakePlatform(vision);
    platform.mainQueue = mainQueue;
    const auto analyzer =
        SelvioFacialCaptureAnalyzer::initWithParameters(std::make_shared<SelvioFacialCaptureParameters>(), platform);
    const auto delegate = std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
    std::vector<double> microseconds;
    std::chrono::steady_clock::time_point submitted;
    delegate->detectionResults = [&](const auto&) {
        microseconds.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - submitted).count());
        mainQueue->quit();
    };
    analyzer->setDelegate(delegate);
    const auto frame = SampleBuffer::makeVideo(PixelBuffer::create(18, 32, kPixelFormat420v));
    for (auto _ : state) {
        submitted = std::chrono::steady_clock::now();
        analyzer->analyzeSampleBuffer(frame);
        mainQueue->run();
        state.SetIterationTime(microseconds.back() * 1e-6);
        while (analyzer->inProgress()) {
        }
    }
    std::nth_element(microseconds.begin(), microseconds.begin() + static_cast<std::ptrdiff_t>(microseconds.size() / 2),
                     microseconds.end());
    state.counters["median_us"] = microseconds[microseconds.size() / 2];
}

void rulesOfOneFrame(benchmark::State& state) {
    const FaceObservation face = smallFace();
    for (auto _ : state) {
        rules::PreviewGeometry geometry;
        geometry.setScreen({1080, 2340});
        geometry.setResolution({720, 1280});
        const Rect rect = geometry.faceRect(face.boundingBox);
        rules::FaceChecksInput input;
        input.points = {.contour = rules::landmarkInAdjustedRect(face.landmarks->faceContour, rect),
                        .nose = rules::landmarkInAdjustedRect(face.landmarks->nose, rect),
                        .outerLips = rules::landmarkInAdjustedRect(face.landmarks->outerLips, rect)};
        input.biggerScreenSide = geometry.biggerScreenSide;
        input.smallerScreenSide = geometry.smallerScreenSide;
        benchmark::DoNotOptimize(rules::checkFace(input));
        benchmark::DoNotOptimize(rules::decideGoodFrame({.countdownTime = 2}));
    }
}

BENCHMARK(refusedFrame)->Name("frame_refused_by_the_latch");
BENCHMARK(analysedFrame)->Name("analyzer_around_one_frame")->Unit(benchmark::kMicrosecond)->UseManualTime();
BENCHMARK(rulesOfOneFrame)->Name("geometry_checks_and_gating");

}  // namespace

BENCHMARK_MAIN();
