// What recording adds to the encoder: processor time of the writer beside a bare encoder pipeline on the same frames.
// Then, as text, how near the files come to the bit rates asked for, and whether the encoder keeps up with 30 frames a
// second.
#include <SelvioFacialCapture/linux/Recording.h>
#include <benchmark/benchmark.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <future>
#include <random>
#include <thread>

#include "bench/Ratios.h"
#include "support/Pixels.h"

namespace {

using namespace selvio;
using namespace selvio::bench;
using std::chrono::nanoseconds;

constexpr int kWidth = 720;
constexpr int kHeight = 1280;
constexpr int kFrames = 90;
constexpr nanoseconds kFrame{33'333'333};
const std::filesystem::path kFile = std::filesystem::temp_directory_path() / "selvio_bench.mp4";

// A second of a soft picture that moves, with the noise of a small sensor over it.
const std::vector<std::shared_ptr<PixelBuffer>>& noisyFrames() {
    static const auto frames = [] {
        std::vector<std::shared_ptr<PixelBuffer>> made;
        std::mt19937 random(1);
        std::vector<int> noise(1 << 20);
        std::normal_distribution<double> sensor(0.0, 8.0);
        for (int& n : noise) n = static_cast<int>(std::lround(sensor(random)));
        for (int i = 0; i < 30; ++i) {
            made.push_back(painted(
                kWidth, kHeight, kPixelFormat420v, [&, n = random()](auto* sample, int x, int y, int plane) mutable {
                    if (plane == 1) return void(std::fill_n(sample, 2, 128));
                    const double wave = std::sin((x + 12 * i) * 0.02) + std::cos((y + 6 * i) * 0.013);
                    *sample = static_cast<std::uint8_t>(
                        std::clamp(128 + static_cast<int>(40 * wave) + noise[n++ % noise.size()], 16, 235));
                }));
        }
        return made;
    }();
    return frames;
}

struct Recorded {
    AssetWriterStatus status = AssetWriterStatus::Unknown;
    double seconds = 0.0;  ///< taken
    int dropped = 0;
};

Recorded record(const std::string& codec, std::int64_t bitRate, int frames, bool inRealTime) {
    std::filesystem::remove(kFile);
    const auto factory = makeGstAssetWriterFactory();
    const auto writer = factory->makeAssetWriter(kFile, kFileTypeMPEG4).value();
    const auto input = factory->makeVideoInput({codec, kWidth, kHeight, {{kVideoAverageBitRateKey, bitRate}}});
    input->setExpectsMediaDataInRealTime(inRealTime);
    writer->addInput(input);
    if (!writer->startWriting()) return {writer->status(), 0, 0};
    writer->startSessionAtSourceTime(nanoseconds(0));
    Recorded result;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < frames; ++i) {
        const auto sample = SampleBuffer::makeVideo(noisyFrames()[static_cast<std::size_t>(i) % noisyFrames().size()],
                                                    {i * kFrame, kFrame});
        if (inRealTime) {
            std::this_thread::sleep_until(start + i * kFrame);
        } else {
            while (!input->isReadyForMoreMediaData()) std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        if (!input->appendSampleBuffer(sample)) ++result.dropped;
    }
    std::promise<void> done;
    writer->finishWriting([&] { done.set_value(); });
    done.get_future().wait();
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    result.status = writer->status();
    return result;
}

void BM_writer(benchmark::State& state) {
    noisyFrames();
    for (auto _ : state) {
        if (record(kVideoCodecTypeH264, 7'250'000, kFrames, false).status != AssetWriterStatus::Completed)
            state.SkipWithError("not recorded");
    }
}

void BM_bare(benchmark::State& state) {
    noisyFrames();
    for (auto _ : state) {
        GstElement* const pipeline =
            gst_parse_launch(("appsrc name=in format=time max-bytes=0 max-buffers=4 block=true "
                              "caps=video/x-raw,format=NV12,width=720,height=1280,"
                              "framerate=30/1,colorimetry=bt601 ! x264enc speed-preset=superfast bframes=0 "
                              "key-int-max=60 bitrate=7250 ! h264parse ! "
                              "mp4mux faststart=true ! filesink location=" +
                              kFile.string())
                                 .c_str(),
                             nullptr);
        GstElement* const source = gst_bin_get_by_name(GST_BIN(pipeline), "in");
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        for (int i = 0; i < kFrames; ++i) {
            const auto& pixels = noisyFrames()[static_cast<std::size_t>(i) % noisyFrames().size()];
            const gsize bytes = static_cast<gsize>(kWidth) * kHeight * 3 / 2;
            GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, bytes, nullptr);
            gst_buffer_fill(buffer, 0, pixels->data(), bytes);
            GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(i * kFrame.count());
            GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(kFrame.count());
            gst_app_src_push_buffer(GST_APP_SRC(source), buffer);
        }
        gst_app_src_end_of_stream(GST_APP_SRC(source));
        GstBus* const bus = gst_element_get_bus(pipeline);
        gst_message_unref(gst_bus_timed_pop_filtered(bus, GST_CLOCK_TIME_NONE,
                                                     static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
        gst_object_unref(bus);
        gst_object_unref(source);
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
    }
}

void reportBitRates() {
    constexpr int kLong = 180;
    std::printf("\naverage bit rates of %d noisy frames of 720x1280\n", kLong);
    for (const auto& [codec, rates] : {std::pair{kVideoCodecTypeH264, std::array{1'500'000, 7'250'000, 13'000'000}},
                                       {kVideoCodecTypeHEVC, std::array{500'000, 3'250'000, 6'000'000}}}) {
        for (std::size_t i = 0; i < rates.size(); ++i) {
            const Recorded result = record(codec, rates[i], kLong, false);
            if (result.status != AssetWriterStatus::Completed) continue;
            const double rate = static_cast<double>(std::filesystem::file_size(kFile)) * 8 / (kLong / 30.0);
            std::printf(
                "%s quality %3d: asked %5.2f, measured %5.2f Mbit/s, ratio %.3f (0.85 to 1.15); %.0f frames a second\n",
                codec, std::array{10, 55, 100}[i], rates[i] / 1e6, rate / 1e6, rate / rates[i], kLong / result.seconds);
        }
        const Recorded live = record(codec, rates[1], kFrames, true);
        std::printf("%s quality  55 at 30 frames a second: %d of %d frames dropped\n", codec, live.dropped, kFrames);
    }
    std::filesystem::remove(kFile);
}

}  // namespace

int main(int argc, char** argv) {
    gst_init(nullptr, nullptr);
    addLong("writer", BM_writer);
    addLong("bare_encoder", BM_bare);
    const int code = runWithRatios(
        argc, argv, {{"recording 720x1280 H.264, over the bare encoder pipeline", "writer", "bare_encoder", 1.10}});
    if (code == 0) reportBitRates();
    return code;
}
