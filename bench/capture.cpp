// What capture adds to GStreamer: the processor time from the camera to the delegate, beside a bare pipeline of the
// same source with the same conversion into fakesink. Each run is three seconds of 1280x720 at 30 frames a second.
//
// Without a conversion ("native") the bare pipeline does next to nothing; the difference in processor time, not the
// ratio, is the cost of handing 90 frames on to another thread.
//
// How late frames reach a camera's delegate, with and without an analyzer that is fed there, is printed as well (five
// seconds each, a portrait before the camera): "latest" is the longest time from a frame's capture to the delegate,
// in frame times, which should stay below 1.
//
// With a camera's name in SELVIO_BENCH_CAMERA that camera is measured as well, for example a virtual one:
//   private-pipewire.sh sh -c 'gst-launch-1.0 videotestsrc is-live=true ! pipewiresink mode=provide
//   stream-properties=props,media.class=Video/Source,node.description=Bench & SELVIO_BENCH_CAMERA=Bench bench_capture'
#include <SelvioFacialCapture/SelvioFacialCapture.h>
#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/linux/Capture.h>
#include <SelvioFacialCapture/linux/LinuxPlatform.h>
#include <benchmark/benchmark.h>
#include <gst/gst.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <thread>
#include <vector>

#include "bench/Ratios.h"

namespace {

using namespace selvio;
using namespace selvio::bench;

constexpr std::chrono::seconds kRun{3};

class Counter final : public CaptureOutputDelegate {
public:
    void captureOutputDidOutputSampleBuffer(const CaptureOutput&, const std::shared_ptr<SampleBuffer>& sample,
                                            const std::shared_ptr<CaptureConnection>&) override {
        benchmark::DoNotOptimize(sample->imageBuffer()->data());
        ++frames;
    }
    void captureOutputDidDropSampleBuffer(const CaptureOutput&, const std::shared_ptr<SampleBuffer>&,
                                          const std::shared_ptr<CaptureConnection>&) override {
        ++drops;
    }
    void captureOutputDidOutputMetadataObjects(const CaptureOutput&, const std::vector<MetadataObject>&,
                                               const std::shared_ptr<CaptureConnection>&) override {}
    std::atomic<int> frames{0};
    std::atomic<int> drops{0};
};

void runSession(benchmark::State& state, const std::shared_ptr<CaptureSystem>& system, PixelFormat format,
                const char* name, bool codes = false) {
    std::shared_ptr<CaptureDevice> camera;
    const auto found = system->discoverDevices({}, MediaType::Video, CaptureDevicePosition::Unspecified);
    for (const auto& device : found->devices) {
        if (device->localizedName() == name) camera = device;
    }
    if (!camera) return state.SkipWithError("there is no such camera");
    const auto session = system->makeSession();
    const auto output = system->makeVideoDataOutput();
    const auto metadata = system->makeMetadataOutput();
    const auto queue = std::make_shared<SerialQueue>("frames");
    const auto counter = std::make_shared<Counter>();
    session->addInput(system->makeDeviceInput(camera).value());
    output->setPixelFormat(format);
    output->setAlwaysDiscardsLateVideoFrames(true);
    output->setSampleBufferDelegate(counter, queue);
    session->addOutput(output);
    if (codes) {
        metadata->setMetadataObjectsDelegate(counter, queue);
        metadata->setMetadataObjectTypes({kMetadataObjectTypePDF417Code});
        session->addOutput(metadata);
    }
    for (auto _ : state) {
        session->startRunning();
        std::this_thread::sleep_for(kRun);
        session->stopRunning();
    }
    state.counters["frames"] = counter->frames.load();
    state.counters["drops"] = counter->drops.load();
}

void runBare(benchmark::State& state, const std::string& description) {
    for (auto _ : state) {
        GstElement* const pipeline = gst_parse_launch(description.c_str(), nullptr);
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        std::this_thread::sleep_for(kRun);
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
    }
}

const std::string kPicture = "videotestsrc is-live=true pattern=solid-color";

std::shared_ptr<CaptureSystem> pictureOf(const char* rawFormat) {
    CaptureOptions options;
    options.systemDevices = false;
    options.sources = {{.name = "picture", .source = kPicture, .rawFormat = rawFormat}};
    return makeGstCaptureSystem(options);
}

void BM_native(benchmark::State& state) {
    runSession(state, pictureOf("NV12"), kPixelFormat420v, "picture");
}
void BM_native_bare(benchmark::State& state) {
    runBare(state, kPicture + " ! video/x-raw,format=NV12,width=1280,height=720,framerate=30/1 ! fakesink sync=false");
}
void BM_converted(benchmark::State& state) {
    runSession(state, pictureOf("YUY2"), kPixelFormat32BGRA, "picture");
}
void BM_converted_bare(benchmark::State& state) {
    runBare(state, kPicture +
                       " ! video/x-raw,format=YUY2,width=1280,height=720,framerate=30/1 ! videoconvert ! "
                       "video/x-raw,format=BGRA ! fakesink sync=false");
}
void BM_converted_codes(benchmark::State& state) {
    runSession(state, pictureOf("YUY2"), kPixelFormat32BGRA, "picture", true);
}

// ---- lateness

constexpr std::chrono::seconds kLatenessRun{5};
constexpr double kFrameTime = 1.0 / 30;  // seconds

/// The middle of the sample portrait, still, in 1280x720.
SourceCamera portraitCamera() {
    return {.name = "portrait",
            .source =
                "filesrc location=\"" SELVIO_SAMPLES
                "/astronaut.jpg\" ! jpegdec ! videoscale add-borders=true ! videoconvert ! "
                "video/x-raw,format=NV12,width=1280,height=720,pixel-aspect-ratio=1/1 ! imagefreeze is-live=true"};
}

void runCamera(benchmark::State& state, bool analyse) {
    if (const auto error = waitForVisionModels()) return state.SkipWithError(error->localizedDescription.c_str());
    const auto mainQueue = std::make_shared<MainQueue>();
    Platform platform = makeLinuxPlatform();
    platform.mainQueue = mainQueue;
    platform.captureSystem = makeGstCaptureSystem({.systemDevices = false, .sources = {portraitCamera()}});
    const auto analyzer =
        SelvioFacialCaptureAnalyzer::initWithParameters(std::make_shared<SelvioFacialCaptureParameters>(), platform);
    const auto host = std::make_shared<SelvioFacialCaptureAnalyzerDelegate>();
    int faces = 0;
    host->detectionResults = [&](const auto& results) {
        const auto statuses = results->orderedStatuses();
        if (statuses && (statuses->empty() || statuses->front() != SelvioFacialCaptureStatusFaceNotFound)) ++faces;
    };
    analyzer->setDelegate(host);

    const auto camera = SelvioFacialCaptureCamera::initWithPreset(kCaptureSessionPreset1280x720, kPixelFormat420v,
                                                                  CaptureDevicePosition::Unspecified,
                                                                  VideoOrientation::Portrait, Rect{}, platform);
    camera->setAnalyzeRGBVideo(false);
    const auto parameters = std::make_shared<SelvioFacialCaptureCameraParameters>();
    parameters->setRecordVideo(false);
    parameters->setRecordAudio(false);
    camera->setParameters(parameters);
    const auto events = std::make_shared<SelvioFacialCaptureCameraDelegate>();
    std::vector<double> lateness;  // frame times; of the video output queue until the camera has stopped
    int drops = 0;
    events->didFinishConfiguringSession = [] {};
    events->didReceiveSampleBuffer = [&](const auto& frame) {
        const std::chrono::duration<double> late = platform.clock->monotonicTime() - *frame->timing().presentationTime;
        lateness.push_back(late.count() / kFrameTime);
        if (analyse) analyzer->analyzeSampleBuffer(frame);
    };
    events->didDropSampleBuffer = [&](const auto&) { ++drops; };
    camera->setDelegate(events);
    for (auto _ : state) {
        camera->start();
        mainQueue->asyncAfter(kLatenessRun, [&] { mainQueue->quit(); });
        mainQueue->run();
        camera->stop();
        std::promise<void> last;  // frame on its queue
        camera->videoOutputQueue()->async([&] { last.set_value(); });
        last.get_future().wait();
    }
    camera->shutdown();
    analyzer->stop();
    if (lateness.empty()) return state.SkipWithError("no frames came");
    std::sort(lateness.begin(), lateness.end());
    state.counters["frames"] = static_cast<double>(lateness.size());
    state.counters["drops"] = drops;
    state.counters["faces"] = faces;
    state.counters["median"] = lateness[lateness.size() / 2];
    state.counters["latest"] = lateness.back();
}

const char* const kCamera = std::getenv("SELVIO_BENCH_CAMERA");

void BM_camera(benchmark::State& state) {
    runSession(state, makeGstCaptureSystem(), kPixelFormat32BGRA, kCamera);
}
void BM_camera_bare(benchmark::State& state) {
    runBare(
        state,
        std::string("pipewiresrc do-timestamp=true target-object=\"") + kCamera +
            "\" ! video/x-raw,width=1280,height=720 ! videoconvert ! video/x-raw,format=BGRA ! fakesink sync=false");
}

}  // namespace

int main(int argc, char** argv) {
    gst_init(nullptr, nullptr);
    addLong("native", BM_native);
    addLong("native_bare", BM_native_bare);
    addLong("converted", BM_converted);
    addLong("converted_bare", BM_converted_bare);
    addLong("converted_codes", BM_converted_codes);
    for (const bool analyse : {false, true}) {
        benchmark::RegisterBenchmark(analyse ? "lateness_analysing" : "lateness", runCamera, analyse)
            ->Iterations(1)
            ->Repetitions(1)
            ->ReportAggregatesOnly(false)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
    if (kCamera) {
        addLong("camera", BM_camera);
        addLong("camera_bare", BM_camera_bare);
    }
    return runWithRatios(
        argc, argv,
        {{"camera to delegate, 1280x720 YUYV to BGRA, over the bare pipeline", "converted", "converted_bare", 1.15},
         {"the named camera to delegate, BGRA, over the bare pipeline", "camera", "camera_bare", 1.15}});
}
