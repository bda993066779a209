// The photograph with its record, as `addToImage` makes it, against the bare libjpeg-turbo calls for the same pixels:
// one encode at full quality, one decode, one encode at the wanted quality, the same colour sampling.
#include <SelvioFacialCapture/SelvioFacialCaptureObixData.h>
#include <SelvioFacialCapture/linux/Codec.h>
#include <SelvioFacialCapture/linux/Device.h>

#include "bench/Ratios.h"
#include "support/Pixels.h"

#include <jpeglib.h>
#include <nlohmann/json.hpp>

namespace {

using namespace selvio;

constexpr int kWidth = 1080;
constexpr int kHeight = 1920;
constexpr int kQuality = 95;

/// Smooth shapes under a camera's noise; the same on every run.
std::shared_ptr<PixelBuffer> photograph() {
    return painted(kWidth, kHeight, kPixelFormat32BGRA, [random = 1U](auto* pixel, int x, int y, int) mutable {
        for (int i = 4 * x; i < 4 * x + 4; ++i) {
            random = random * 1664525 + 1013904223;
            const int noise = static_cast<int>(random >> 29) - 4;
            const int shape = (i / 24 + y / 5 * (1 + i % 4)) % 160 + 40;
            *pixel++ = static_cast<std::uint8_t>(shape + noise);
        }
    });
}

/// The same picture as a camera's 420v frame, colour taken from every second pixel of every second row.
std::shared_ptr<PixelBuffer> photograph420v() {
    const auto picture = photograph();
    return painted(kWidth, kHeight, kPixelFormat420v, [&](auto* sample, int x, int y, int plane) {
        const auto* const bgr = plane == 0 ? sampleAt(*picture, x, y) : sampleAt(*picture, 2 * x, 2 * y);
        const int b = bgr[0], g = bgr[1], r = bgr[2];
        if (plane == 0) {
            sample[0] = static_cast<std::uint8_t>(16 + (66 * r + 129 * g + 25 * b) / 256);
        } else {
            sample[0] = static_cast<std::uint8_t>(128 + (112 * b - 74 * g - 38 * r) / 256);
            sample[1] = static_cast<std::uint8_t>(128 + (112 * r - 94 * g - 18 * b) / 256);
        }
    });
}

void addToImage(benchmark::State& state, std::shared_ptr<PixelBuffer> (*make)()) {
    Platform platform = makePortablePlatform();
    platform.device = std::make_shared<LinuxDevice>();
    platform.imageCodec = std::make_shared<LibjpegImageCodec>();
    const auto record = SelvioFacialCaptureObixData::init(platform);
    record->addUXP(nlohmann::json(std::vector<std::string>(300, "FNF:12345")));
    const Image image{make()};
    for (auto _ : state) {
        if (!record->addToImage(image, kQuality)) state.SkipWithError("no photograph");
    }
}

unsigned long bareEncode(std::uint8_t* pixels, std::size_t bytesPerRow, int quality, std::vector<unsigned char>& file) {
    jpeg_error_mgr errors{};
    jpeg_compress_struct info{};
    info.err = jpeg_std_error(&errors);
    jpeg_create_compress(&info);
    unsigned char* data = file.data();
    unsigned long size = file.size();
    jpeg_mem_dest(&info, &data, &size);
    info.image_width = kWidth;
    info.image_height = kHeight;
    info.input_components = 4;
    info.in_color_space = JCS_EXT_BGRX;
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, quality, TRUE);
    jpeg_start_compress(&info, TRUE);
    while (info.next_scanline < info.image_height) {
        JSAMPROW row = pixels + info.next_scanline * bytesPerRow;
        jpeg_write_scanlines(&info, &row, 1);
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    return size;
}

void bareDecode(const std::vector<unsigned char>& file, unsigned long size, std::uint8_t* pixels,
                std::size_t bytesPerRow) {
    jpeg_error_mgr errors{};
    jpeg_decompress_struct info{};
    info.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&info);
    jpeg_mem_src(&info, file.data(), size);
    jpeg_read_header(&info, TRUE);
    info.out_color_space = JCS_EXT_BGRX;
    jpeg_start_decompress(&info);
    while (info.output_scanline < info.output_height) {
        JSAMPROW row = pixels + info.output_scanline * bytesPerRow;
        jpeg_read_scanlines(&info, &row, 1);
    }
    jpeg_finish_decompress(&info);
    jpeg_destroy_decompress(&info);
}

void bare(benchmark::State& state) {
    const auto picture = photograph();
    const auto between = PixelBuffer::create(picture->layout());
    std::vector<unsigned char> file(picture->layout().byteSize());
    for (auto _ : state) {
        const unsigned long size = bareEncode(picture->data(), picture->bytesPerRow(), 100, file);
        bareDecode(file, size, between->data(), between->bytesPerRow());
        benchmark::DoNotOptimize(bareEncode(between->data(), between->bytesPerRow(), kQuality, file));
    }
}

BENCHMARK_CAPTURE(addToImage, BGRA, photograph)->Name("addToImage_BGRA")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(addToImage, 420v, photograph420v)->Name("addToImage_420v")->Unit(benchmark::kMillisecond);
BENCHMARK(bare)->Name("bare_libjpeg_BGRA")->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    return bench::runWithRatios(
        argc, argv,
        {{"addToImage for 1080x1920 BGRA / bare libjpeg-turbo", "addToImage_BGRA", "bare_libjpeg_BGRA", 1.10},
         {"addToImage for 1080x1920 420v / bare libjpeg-turbo, BGRA", "addToImage_420v", "bare_libjpeg_BGRA", 1.10}});
}
