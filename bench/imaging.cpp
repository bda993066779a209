// The deep copy of an accepted frame against memcpy of the same bytes; base64 of a photograph.
#include <SelvioFacialCapture/SelvioFacialCaptureImageUtilities.h>
#include <SelvioFacialCapture/imaging/Base64.h>

#include "bench/Ratios.h"

#include <cstring>

namespace {

using namespace selvio;

std::shared_ptr<PixelBuffer> frame(PixelFormat format) {
    auto picture = PixelBuffer::create(1920, 1080, format);
    std::memset(picture->data(), 0x5A, picture->layout().byteSize());
    return picture;
}

void countBytes(benchmark::State& state, std::size_t bytes) {
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

void copyOf(benchmark::State& state, PixelFormat format) {
    const auto sample = SampleBuffer::makeVideo(frame(format));
    const auto pool = PixelBufferPool::create();
    for (auto _ : state) benchmark::DoNotOptimize(SelvioFacialCaptureImageUtilities::copySampleBuffer(sample, *pool));
    countBytes(state, sample->imageBuffer()->layout().byteSize());
}

void memcpyOf(benchmark::State& state, PixelFormat format) {
    const auto source = frame(format);
    const auto target = frame(format);
    for (auto _ : state) {
        std::memcpy(target->data(), source->data(), source->layout().byteSize());
        benchmark::DoNotOptimize(target->data());
        benchmark::ClobberMemory();
    }
    countBytes(state, source->layout().byteSize());
}

void base64Of(benchmark::State& state) {
    const std::vector<std::uint8_t> photograph(700'000, 0xA5);
    for (auto _ : state) benchmark::DoNotOptimize(base64::encode(photograph));
    countBytes(state, photograph.size());
}

BENCHMARK_CAPTURE(copyOf, BGRA, kPixelFormat32BGRA)->Name("copySampleBuffer_BGRA")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(memcpyOf, BGRA, kPixelFormat32BGRA)->Name("memcpy_BGRA")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(copyOf, 420v, kPixelFormat420v)->Name("copySampleBuffer_420v")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(memcpyOf, 420v, kPixelFormat420v)->Name("memcpy_420v")->Unit(benchmark::kMicrosecond);
BENCHMARK(base64Of)->Name("base64_encode")->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    return bench::runWithRatios(
        argc, argv,
        {{"deep copy of a 1920x1080 BGRA frame / memcpy", "copySampleBuffer_BGRA", "memcpy_BGRA", 1.10},
         {"deep copy of a 1920x1080 420v frame / memcpy", "copySampleBuffer_420v", "memcpy_420v", 1.10}});
}
