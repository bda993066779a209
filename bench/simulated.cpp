// How long the simulated camera takes to draw one frame, and how many times faster than 30 frames a second that is.
#include <SelvioFacialCapture/simulated/SimulatedFrames.h>
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

using namespace selvio;

// A photograph of the sample's size; what it shows does not matter to the time.
std::shared_ptr<const SimulatedFrames> makeFrames(const std::string& pose) {
    const auto geometry = FaceGeometry::load(SELVIO_SAMPLES "/astronaut.json");
    const auto script = MotionScript::parse("{\"keyFrames\": [{\"at\": 0, \"visible\": true, " + pose + "}]}", "bench");
    if (!geometry || !script) {
        std::fprintf(stderr, "%s\n", (!geometry ? geometry.error() : script.error()).localizedDescription.c_str());
        std::exit(1);
    }
    auto photograph = PixelBuffer::create(geometry.value().width, geometry.value().height, kPixelFormat32BGRA);
    for (std::size_t i = 0; i < photograph->layout().byteSize(); ++i)
        photograph->data()[i] = static_cast<std::uint8_t>(i * 7 + i / 1000);
    return SimulatedFrames::make(photograph, geometry.value(), script.value()).value();
}

void drawFrame(benchmark::State& state, PixelFormat format, const std::string& pose) {
    const auto frames = makeFrames(pose);
    const auto frame = PixelBuffer::create(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)), format);
    std::chrono::nanoseconds time{0};
    for (auto unused : state) {
        frames->render(time, *frame);
        benchmark::DoNotOptimize(frame->data());
        time += std::chrono::milliseconds(33);
    }
    state.counters["times_30fps"] =
        benchmark::Counter(static_cast<double>(state.iterations()) / 30, benchmark::Counter::kIsRate);
}

constexpr const char* kGood = R"("center": [0.5, 0.46], "jawWidth": 0.63)";
constexpr const char* kNoisy = R"("center": [0.5, 0.46], "jawWidth": 0.63, "noise": 1.5)";
constexpr const char* kRolled = R"("center": [0.5, 0.46], "jawWidth": 0.3, "roll": 24, "noise": 1.5)";

}  // namespace

int main(int argc, char** argv) {
    for (const auto& [name, format] : {std::pair{"bgra", kPixelFormat32BGRA}, {"420v", kPixelFormat420v}}) {
        for (const auto& [what, pose] :
             {std::pair{"good", kGood}, {"good+noise", kNoisy}, {"far+rolled+noise", kRolled}}) {
            benchmark::RegisterBenchmark((std::string("frame/") + name + "/" + what).c_str(), drawFrame, format,
                                         std::string(pose))
                ->Args({720, 1280})
                ->Args({1080, 1920})
                ->Unit(benchmark::kMillisecond);
        }
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
