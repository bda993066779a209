#include "platform/linux/gstreamer/Mp4Index.h"
#include "support/LogCapture.h"
#include "support/MediaProbe.h"
#include "support/Pixels.h"

#include <SelvioFacialCapture/linux/Recording.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <future>
#include <random>
#include <sstream>
#include <thread>

namespace selvio {
namespace {

using namespace test;
using std::chrono::nanoseconds;
using ::testing::Contains;
using ::testing::HasSubstr;

constexpr nanoseconds kStart = std::chrono::hours(7);  // master clocks do not begin at zero
constexpr nanoseconds kFrame{33'333'333};

std::shared_ptr<SampleBuffer> videoSample(std::shared_ptr<PixelBuffer> pixels, nanoseconds time) {
    return SampleBuffer::makeVideo(std::move(pixels), {kStart + time, kFrame});
}

class AssetWriterTest : public ::testing::Test {
protected:
    void make(VideoSettings settings, bool withAudio = false, RecordingOptions options = {}) {
        factory_ = makeGstAssetWriterFactory(std::move(options));
        auto made = factory_->makeAssetWriter(file_, kFileTypeMPEG4);
        ASSERT_TRUE(made) << made.error().localizedDescription;
        writer_ = made.value();
        video_ = factory_->makeVideoInput(settings);
        audio_ = withAudio ? factory_->makeAudioInput({}) : nullptr;
        for (const auto& input : {video_, audio_}) {
            if (!input) continue;
            ASSERT_TRUE(writer_->canAddInput(*input));
            writer_->addInput(input);
        }
    }
    void start() {
        ASSERT_TRUE(writer_->startWriting());
        writer_->startSessionAtSourceTime(kStart);
    }
    // As a caller that is not in real time: waits until the input is ready.
    bool append(const std::shared_ptr<AssetWriterInput>& input, const std::shared_ptr<SampleBuffer>& sample) {
        while (writer_->status() == AssetWriterStatus::Writing && !input->isReadyForMoreMediaData())
            std::this_thread::yield();
        return input->appendSampleBuffer(sample);
    }
    AssetWriterStatus finish() {
        video_->markAsFinished();
        if (audio_) audio_->markAsFinished();
        std::promise<void> done;
        writer_->finishWriting([&] { done.set_value(); });
        done.get_future().wait();
        return writer_->status();
    }
    static VideoSettings h264(int width, int height) {
        return {kVideoCodecTypeH264, width, height, {{kVideoAverageBitRateKey, 1'500'000}}};
    }

    TemporaryDirectory directory_;
    std::filesystem::path file_ = directory_.path() / "selvio_test.mp4";
    std::shared_ptr<AssetWriterFactory> factory_;
    std::shared_ptr<AssetWriter> writer_;
    std::shared_ptr<AssetWriterInput> video_;
    std::shared_ptr<AssetWriterInput> audio_;
};

TEST_F(AssetWriterTest, WritesEveryFrameWholeInTheCodecSizeAndColourAskedFor) {
    struct Case {
        const char* codec;
        int width, height;  // of a frame; the file is 360x640
        PixelFormat format;
        const char* codecName;
        const char* tag;
        int redAt200;  // in the middle column: of the picture, or of the black border above it
    };
    const Case cases[] = {
        {kVideoCodecTypeH264, 202, 360, kPixelFormat32BGRA, "h264", "avc1", 254},
        {kVideoCodecTypeHEVC, 640, 360, kPixelFormat420v, "hevc", "hvc1", 0},
        {kVideoCodecTypeH264, 202, 360, kPixelFormat32ARGB, "h264", "avc1", 254},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.format);
        std::filesystem::remove(file_);
        make({c.codec, 360, 640, {{kVideoAverageBitRateKey, 500'000}}});
        start();
        const auto red = painted(c.width, c.height, c.format, [&](std::uint8_t* sample, int, int, int plane) {
            const std::array<std::uint8_t, 4> bgra{0, 0, 255, 255}, argb{255, 255, 0, 0}, yuv{81, 90, 240};
            if (c.format == kPixelFormat420v) {
                std::copy_n(&yuv[plane == 0 ? 0 : 1], plane + 1, sample);
            } else {
                std::ranges::copy(c.format == kPixelFormat32BGRA ? bgra : argb, sample);
            }
        });
        for (int i = 0; i < 45; ++i) ASSERT_TRUE(append(video_, videoSample(red, i * kFrame)));
        ASSERT_EQ(finish(), AssetWriterStatus::Completed);
        const auto video = streamOfType(probe(file_), "video");
        EXPECT_EQ(video.value("codec_name", ""), c.codecName);
        EXPECT_EQ(video.value("codec_tag_string", ""), c.tag);
        EXPECT_EQ(video.value("width", 0), 360);
        EXPECT_EQ(video.value("height", 0), 640);
        EXPECT_EQ(video.value("nb_read_frames", ""), "45");
        EXPECT_NEAR(numberIn(video, "duration"), 1.5, 0.03);
        EXPECT_EQ(directory_.fileCount(), 1U) << "nothing else is left beside the file";
        const std::string head = contentOf(file_);
        EXPECT_LT(head.find("moov"), head.find("mdat")) << "a player can start before it has all of the file";
        const std::string column =
            outputOf("ffmpeg -v error -i '" + file_.string() +
                     "' -vf 'crop=2:640:180:0,scale=1:640' -frames:v 1 -pix_fmt rgb24 -f rawvideo -");
        ASSERT_EQ(column.size(), 1920U);
        const auto level = [&](std::size_t at) { return static_cast<unsigned char>(column[at]); };
        EXPECT_NEAR(level(600), c.redAt200, 20);
        EXPECT_GT(level(960), 230);
        EXPECT_LT(level(961), 25);
        EXPECT_LT(level(962), 25);
        EXPECT_NEAR(level(1320), c.redAt200, 20);
    }
}

TEST_F(AssetWriterTest, NeitherASilentMicrophoneNorFramesOutOfOrderHarmTheFile) {
    make(h264(180, 320), true);
    start();
    const auto frame = greyFrame(180, 320, kPixelFormat420v, 90);
    EXPECT_TRUE(video_->appendSampleBuffer(videoSample(frame, -kFrame))) << "taken, and left out";
    for (int i = 0; i < 90; ++i) ASSERT_TRUE(append(video_, videoSample(frame, i * kFrame)));
    EXPECT_FALSE(video_->appendSampleBuffer(videoSample(frame, 89 * kFrame)));
    EXPECT_FALSE(video_->appendSampleBuffer(SampleBuffer::makeVideo(frame, {})));
    EXPECT_FALSE(video_->appendSampleBuffer(nullptr));
    ASSERT_EQ(finish(), AssetWriterStatus::Completed);
    EXPECT_FALSE(video_->appendSampleBuffer(videoSample(frame, 100 * kFrame)));
    const auto media = probe(file_);
    EXPECT_EQ(streamOfType(media, "video").value("nb_read_frames", ""), "90");
    EXPECT_NEAR(numberIn(streamOfType(media, "audio"), "duration"), 3.0, 0.05);
}

// Whatever the settings expected before the camera was opened.
TEST_F(AssetWriterTest, BitRateAndKeyFramesFollowTheFramesOwnRate) {
    std::mt19937 random(1);
    std::vector<std::shared_ptr<PixelBuffer>> noisy;
    for (int i = 0; i < 30; ++i) {
        noisy.push_back(greyFrame(360, 640, kPixelFormat420v, 128));
        std::uint8_t* const luma = noisy.back()->data();
        for (std::size_t k = 0; k < noisy.back()->layout().planeBytes(); ++k)
            luma[k] = static_cast<std::uint8_t>(luma[k] + random() % 48);
    }
    constexpr int kSeconds = 7;
    constexpr double kBitRate = 1'500'000;
    for (const int rate : {10, 60}) {
        SCOPED_TRACE(rate);
        std::filesystem::remove(file_);
        auto settings = h264(360, 640);
        settings.compressionProperties[kVideoExpectedSourceFrameRateKey] = 30;
        make(settings);
        start();
        const nanoseconds duration(1'000'000'000 / rate);
        for (int i = 0; i < kSeconds * rate; ++i) {
            ASSERT_TRUE(append(video_, SampleBuffer::makeVideo(noisy[static_cast<std::size_t>(i) % noisy.size()],
                                                               {kStart + i * duration, duration})));
        }
        ASSERT_EQ(finish(), AssetWriterStatus::Completed);
        const double bits = static_cast<double>(std::filesystem::file_size(file_)) * 8;
        EXPECT_NEAR(bits / kSeconds, kBitRate, kBitRate / 10);
        std::istringstream packets(
            outputOf("ffprobe -v error -show_entries packet=pts_time,flags -of csv=p=0 '" + file_.string() + "'"));
        double last = 0.0;
        for (std::string line; std::getline(packets, line);) {
            if (line.find('K') == std::string::npos) continue;
            EXPECT_LE(std::stod(line) - last, 2.01);
            last = std::stod(line);
        }
        EXPECT_GE(last, kSeconds - 2.01);
    }
}

TEST_F(AssetWriterTest, TheIndexComesToTheFrontUnlessItCannot) {
    const auto atom = [](const std::string& type, const std::string& content) {
        const std::uint32_t size = static_cast<std::uint32_t>(content.size()) + 8;
        std::string bytes;
        for (const int shift : {24, 16, 8, 0}) bytes += static_cast<char>(size >> shift & 0xff);
        return bytes + type + content;
    };
    const auto index = [&](const std::string& type, const std::string& offsets) {
        const std::string table = atom(type, std::string("\0\0\0\0\0\0\0\x02", 8) + offsets);
        return atom("moov", atom("trak", atom("mdia", atom("minf", atom("stbl", table)))) + atom("udta", "stco"));
    };
    const std::string head = atom("ftyp", "isom");
    const std::string media = atom("mdat", std::string((1 << 20) + 5, 'm'));
    const std::string before("\0\0\0\x20\0\x10\0\0", 8), after("\0\0\0\x6c\0\x10\0\x4c", 8);  // 0x4c more
    const std::string before64 = std::string("\0\0\0\0", 4) + before.substr(0, 4) + "\1\1\1\1\xff\xff\xff\xff";
    const std::string after64 = std::string("\0\0\0\0\0\0\0\x74\1\1\1\2\0\0\0\x53", 16);  // 0x54 more
    const struct {
        std::string file, result;
        bool fails = false;
    } rows[] = {
        {head + media + index("stco", before), head + index("stco", after) + media},
        {head + media + index("co64", before64), head + index("co64", after64) + media},
        {head + media + index("stco", "\xff\xff\xff\xff" + before.substr(4)), ""},  // would be beyond 4 GB
        {head + media, "", true},
        {head + media + index("stco", before) + atom("free", "x"), "", true},
        {"", "", true},
    };
    for (const auto& row : rows) {
        std::ofstream(file_, std::ios::binary) << row.file;
        EXPECT_EQ(moveIndexToFront(file_).has_value(), row.fails) << &row - rows;
        EXPECT_TRUE(contentOf(file_) == (row.result.empty() ? row.file : row.result)) << &row - rows;
    }
}

TEST_F(AssetWriterTest, InRealTimeDropsRatherThanWaits) {
    make(h264(720, 1280));
    video_->setExpectsMediaDataInRealTime(true);
    start();
    const auto frame = greyFrame(720, 1280, kPixelFormat32BGRA, 90);
    std::weak_ptr<PixelBuffer> held = frame;
    int taken = 0;
    for (int i = 0; i < 200; ++i) taken += video_->appendSampleBuffer(videoSample(frame, i * kFrame)) ? 1 : 0;
    EXPECT_GE(taken, 5);
    EXPECT_LT(taken, 200) << "no encoder takes 200 frames at once";
    ASSERT_EQ(finish(), AssetWriterStatus::Completed);
    EXPECT_EQ(streamOfType(probe(file_), "video").value("nb_read_frames", ""), std::to_string(taken));
    EXPECT_EQ(held.use_count(), 1) << "the frames' memory is shared while it is encoded, and then let go";
}

TEST_F(AssetWriterTest, WhatIsNotFinishedLeavesNoFileAndWhatIsThereStays) {
    LogCapture log;
    make(h264(180, 320));
    start();
    EXPECT_EQ(finish(), AssetWriterStatus::Failed);
    EXPECT_THAT(log.take(), Contains(HasSubstr("nothing was recorded")));
    make(h264(180, 320));
    start();
    append(video_, videoSample(greyFrame(180, 320, kPixelFormat420v, 90), {}));
    writer_.reset();  // given up while it writes
    EXPECT_EQ(directory_.fileCount(), 0U);
    std::ofstream(file_) << "already here";
    make(h264(180, 320));
    EXPECT_FALSE(writer_->startWriting());
    EXPECT_THAT(log.take(), Contains(HasSubstr(file_.string())));
    EXPECT_EQ(finish(), AssetWriterStatus::Failed);
    EXPECT_EQ(contentOf(file_), "already here");
}

TEST_F(AssetWriterTest, NamesThePackageThatIsMissing) {
    const std::tuple<const char*, std::vector<std::string>, const char*> rows[] = {
        {kVideoCodecTypeHEVC, {"h265parse"}, "gstreamer1.0-plugins-bad"},
        {nullptr, {"avenc_aac", "voaacenc", "fdkaacenc"}, "gstreamer1.0-libav"},
        {"VP9", {}, "\"VP9\" is not recorded"},
    };
    for (const auto& [codec, disabled, message] : rows) {
        LogCapture log;
        const auto factory = makeGstAssetWriterFactory({.disabledElements = disabled});
        const auto writer = factory->makeAssetWriter(file_, kFileTypeMPEG4).value();
        const auto input = codec == nullptr ? factory->makeAudioInput({}) : factory->makeVideoInput({codec, 4, 4, {}});
        EXPECT_FALSE(writer->canAddInput(*input));
        EXPECT_THAT(log.take(), Contains(HasSubstr(message)));
    }
    EXPECT_EQ(recommendedVideoCodec({.preferHEVC = true}), kVideoCodecTypeHEVC);
    EXPECT_EQ(recommendedVideoCodec({.preferHEVC = true, .disabledElements = {"h265parse"}}), kVideoCodecTypeH264);
}

}  // namespace
}  // namespace selvio
