#include "platform/linux/gstreamer/Mp4Index.h"
#include "support/LogCapture.h"
#include "support/MediaProbe.h"
#include "support/Pixels.h"

#include <SelvioFacialCapture/linux/Recording.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <future>
#include <map>
#include <random>
#include <sstream>
#include <thread>

namespace selvio {
namespace {

using namespace test;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;

constexpr nanoseconds kStart = std::chrono::hours(7);  // master clocks do not begin at zero
constexpr nanoseconds kFrame{33'333'333};

std::shared_ptr<SampleBuffer> videoSample(std::shared_ptr<PixelBuffer> pixels, nanoseconds time) {
    return SampleBuffer::makeVideo(std::move(pixels), {kStart + time, kFrame});
}

std::shared_ptr<SampleBuffer> audioSample(nanoseconds time, nanoseconds length, int amplitude = 0) {
    AudioData audio{48000, 1, {}};
    for (int i = 0; i < length.count() * 48 / 1'000'000; ++i) {
        audio.samples.push_back(static_cast<std::int16_t>(amplitude * std::sin(0.13 * i)));
    }
    return SampleBuffer::makeAudio(std::move(audio), {kStart + time, length});
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

TEST_F(AssetWriterTest, WritesEveryFrameWholeInTheCodecAndSizeAskedFor) {
    struct Case {
        const char* codec;
        int width, height;  // of a frame; the file is 360x640
        PixelFormat format;
        const char* codecName;
        const char* tag;
        int levelAt200;  // in the middle column: of the picture, or of the black border above it
    };
    const Case cases[] = {
        {kVideoCodecTypeH264, 202, 360, kPixelFormat32BGRA, "h264", "avc1", 200},
        {kVideoCodecTypeHEVC, 640, 360, kPixelFormat420v, "hevc", "hvc1", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.codec);
        std::filesystem::remove(file_);
        make({c.codec, 360, 640, {{kVideoAverageBitRateKey, 500'000}}});
        start();
        const auto frame =
            greyFrame(c.width, c.height, c.format, c.format == kPixelFormat420v ? 188 : 200);  // the same grey
        for (int i = 0; i < 45; ++i) ASSERT_TRUE(append(video_, videoSample(frame, i * kFrame)));
        ASSERT_EQ(finish(), AssetWriterStatus::Completed);
        const auto media = probe(file_);
        const auto video = streamOfType(media, "video");
        EXPECT_EQ(video.value("codec_name", ""), c.codecName);
        EXPECT_EQ(video.value("codec_tag_string", ""), c.tag);
        EXPECT_EQ(video.value("pix_fmt", ""), "yuv420p");
        EXPECT_EQ(video.value("width", 0), 360);
        EXPECT_EQ(video.value("height", 0), 640);
        EXPECT_EQ(video.value("nb_read_frames", ""), "45");
        EXPECT_NEAR(numberIn(video, "duration"), 1.5, 0.03);
        EXPECT_EQ(directory_.fileCount(), 1U) << "nothing else is left beside the file";
        EXPECT_EQ(std::filesystem::status(file_).permissions(), std::filesystem::perms(0600));
        const std::string head = contentOf(file_);
        EXPECT_LT(head.find("moov"), head.find("mdat")) << "a player can start before it has all of the file";
        const std::string column =
            outputOf("ffmpeg -v error -i '" + file_.string() +
                     "' -vf 'crop=2:640:180:0,scale=1:640' -frames:v 1 -pix_fmt gray -f rawvideo -");
        ASSERT_EQ(column.size(), 640U);
        EXPECT_NEAR(static_cast<unsigned char>(column[200]), c.levelAt200, 12);
        EXPECT_NEAR(static_cast<unsigned char>(column[320]), 200, 8);
        EXPECT_NEAR(static_cast<unsigned char>(column[440]), c.levelAt200, 12);
    }
}

TEST_F(AssetWriterTest, PictureAndSoundStayTogetherWithTheOtherEncoder) {
    make(h264(180, 320), true, {.disabledElements = {"fdkaacenc", "avenc_aac"}});
    start();
    // The picture turns white and a tone begins at 1 s. Sound begins 300 ms late, and 40 ms of it are lost at 400 ms.
    milliseconds sound{300};
    for (int i = 0; i < 60; ++i) {
        ASSERT_TRUE(append(video_, videoSample(greyFrame(180, 320, kPixelFormat420v, i < 30 ? 16 : 235), i * kFrame)));
        for (; sound < i * kFrame; sound += milliseconds(20)) {
            if (sound == milliseconds(400) || sound == milliseconds(420)) continue;
            ASSERT_TRUE(append(audio_, audioSample(sound, milliseconds(20), sound < milliseconds(1000) ? 0 : 12000)));
        }
    }
    ASSERT_EQ(finish(), AssetWriterStatus::Completed);
    EXPECT_NEAR(numberIn(streamOfType(probe(file_), "audio"), "duration"), 2.0, 0.04);
    const auto [white, tone] = onsets(file_);
    EXPECT_NEAR(white, 1.0, 0.02);
    EXPECT_NEAR(tone, white, 0.04);
}

TEST_F(AssetWriterTest, NeitherASilentMicrophoneNorFramesOutOfOrderHarmTheFile) {
    make(h264(180, 320), true);
    start();
    const auto frame = greyFrame(180, 320, kPixelFormat420v, 90);
    EXPECT_TRUE(video_->appendSampleBuffer(videoSample(frame, -kFrame))) << "taken, and left out";
    for (int i = 0; i < 90; ++i) ASSERT_TRUE(append(video_, videoSample(frame, i * kFrame)));
    EXPECT_FALSE(video_->appendSampleBuffer(videoSample(frame, 89 * kFrame)));
    EXPECT_FALSE(video_->appendSampleBuffer(SampleBuffer::makeVideo(frame, {})));
    EXPECT_FALSE(video_->appendSampleBuffer(audioSample(std::chrono::seconds(5), kFrame)));
    EXPECT_FALSE(video_->appendSampleBuffer(nullptr));
    ASSERT_EQ(finish(), AssetWriterStatus::Completed);
    EXPECT_FALSE(video_->appendSampleBuffer(videoSample(frame, 100 * kFrame)));
    const auto media = probe(file_);
    EXPECT_EQ(streamOfType(media, "video").value("nb_read_frames", ""), "90");
    EXPECT_NEAR(numberIn(streamOfType(media, "audio"), "duration"), 3.0, 0.05);
}

TEST_F(AssetWriterTest, ColoursAreThoseOfTheFrames) {
    for (const PixelFormat format : {kPixelFormat32BGRA, kPixelFormat32ARGB, kPixelFormat420v}) {
        SCOPED_TRACE(format);
        std::filesystem::remove(file_);
        make(h264(180, 320));
        start();
        const auto red = painted(180, 320, format, [&](std::uint8_t* sample, int, int, int plane) {
            const std::array<std::uint8_t, 4> bgra{0, 0, 255, 255}, argb{255, 255, 0, 0}, yuv{81, 90, 240};
            if (format == kPixelFormat420v) {
                std::copy_n(&yuv[plane == 0 ? 0 : 1], plane + 1, sample);
            } else {
                std::ranges::copy(format == kPixelFormat32BGRA ? bgra : argb, sample);
            }
        });
        for (int i = 0; i < 10; ++i) ASSERT_TRUE(append(video_, videoSample(red, i * kFrame)));
        ASSERT_EQ(finish(), AssetWriterStatus::Completed);
        const std::string pixel = outputOf("ffmpeg -v error -i '" + file_.string() +
                                           "' -vf crop=2:2:90:160 -frames:v 1 -pix_fmt rgb24 -f rawvideo -");
        ASSERT_EQ(pixel.size(), 12U);
        EXPECT_GT(static_cast<unsigned char>(pixel[0]), 230);
        EXPECT_LT(static_cast<unsigned char>(pixel[1]), 25);
        EXPECT_LT(static_cast<unsigned char>(pixel[2]), 25);
    }
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
    for (const int rate : {10, 15, 25, 30, 60}) {
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

TEST_F(AssetWriterTest, TakesItsOwnSizeOfTheDiskAndSaysWhenThatIsFull) {
    const auto frame = greyFrame(180, 320, kPixelFormat420v, 90);
    const auto part = directory_.path() / "selvio_test.part.mp4";
    const auto openFiles = [&] {
        std::map<std::string, int> open;  // files without a name take space, too
        for (const auto& descriptor : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            const auto file = std::filesystem::read_symlink(descriptor, gone).string();
            if (file.starts_with(directory_.path().string())) open[file] = std::stoi(descriptor.path().filename());
        }
        return open;
    };
    const auto elsewhere = directory_.path() / "elsewhere";
    std::ofstream(elsewhere) << "somebody's";
    std::filesystem::create_symlink(elsewhere, part);  // is not followed
    make(h264(180, 320));
    start();
    for (int i = 0; i < 30; ++i) ASSERT_TRUE(append(video_, videoSample(frame, i * kFrame)));
    EXPECT_THAT(openFiles(), ElementsAre(Pair(part.string(), testing::_)));
    ASSERT_EQ(finish(), AssetWriterStatus::Completed);
    EXPECT_EQ(contentOf(elsewhere), "somebody's");

    std::filesystem::remove(elsewhere);
    std::filesystem::remove(file_);
    LogCapture log;
    make(h264(180, 320));
    start();
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(::dup2(full, openFiles().at(part)), 0);
    ::close(full);
    for (int i = 0; i < 30; ++i) append(video_, videoSample(frame, i * kFrame));
    EXPECT_EQ(finish(), AssetWriterStatus::Failed);
    EXPECT_THAT(log.take(), Contains("Recording failed: no space is left on the disk"));
    EXPECT_EQ(directory_.fileCount(), 0U);
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
        {head + index("stco", before) + media, head + index("stco", before) + media},
        {head + media + index("stco", "\xff\xff\xff\xff" + before.substr(4)), ""},  // would be beyond 4 GB
        {head + media, "", true},
        {head + media + index("stco", before) + atom("free", "x"), "", true},
        {head + media.substr(0, 100), "", true},
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

TEST_F(AssetWriterTest, FailureAndCancellingLeaveNoFile) {
    LogCapture log;
    const auto record = [&](int frames) {
        make(h264(180, 320));
        start();
        for (int i = 0; i < frames; ++i)
            append(video_, videoSample(greyFrame(180, 320, kPixelFormat420v, 90), i * kFrame));
    };
    record(0);
    EXPECT_EQ(finish(), AssetWriterStatus::Failed);
    EXPECT_THAT(log.take(), Contains(HasSubstr("nothing was recorded")));
    record(10);
    writer_->cancelWriting();
    EXPECT_EQ(finish(), AssetWriterStatus::Cancelled);
    record(10);
    writer_.reset();  // given up while it writes
    EXPECT_EQ(directory_.fileCount(), 0U);
    record(10);
    std::filesystem::remove_all(directory_.path());
    EXPECT_EQ(finish(), AssetWriterStatus::Failed);
    EXPECT_THAT(log.take(), Contains(HasSubstr("could not finish")));
}

TEST_F(AssetWriterTest, CannotStartWhereNoFileCanBeMade) {
    std::ofstream(file_) << "already here";
    const auto there = file_;
    for (const auto& path :
         {directory_.path() / "missing" / "selvio_a.mp4", std::filesystem::path("/proc/selvio_a.mp4"), there}) {
        SCOPED_TRACE(path);
        LogCapture log;
        file_ = path;
        make(h264(180, 320));
        EXPECT_FALSE(writer_->startWriting());
        EXPECT_THAT(log.take(), Contains(HasSubstr(path.string())));
        EXPECT_FALSE(video_->isReadyForMoreMediaData());
        EXPECT_EQ(finish(), AssetWriterStatus::Failed);
        EXPECT_EQ(directory_.fileCount(), 1U);
        EXPECT_EQ(contentOf(there), "already here");
    }
}

TEST_F(AssetWriterTest, NamesThePackageThatIsMissing) {
    struct Case {
        const char* codec;
        std::vector<std::string> disabled;
        bool audio;
        const char* package;
    };
    const std::vector<std::string> h264Encoders{"vah264enc",  "vah264lpenc", "vaapih264enc", "nvh264enc",
                                                "qsvh264enc", "v4l2h264enc", "x264enc",      "openh264enc"};
    const Case cases[] = {
        {kVideoCodecTypeH264, h264Encoders, false, "gstreamer1.0-plugins-ugly"},
        {kVideoCodecTypeHEVC, {"h265parse"}, false, "gstreamer1.0-plugins-bad"},
        {kVideoCodecTypeH264, {"mp4mux"}, false, "gstreamer1.0-plugins-good"},
        {kVideoCodecTypeH264, {"avenc_aac", "voaacenc", "fdkaacenc"}, true, "gstreamer1.0-libav"},
        {"VP9", {}, false, "\"VP9\" is not recorded"},
    };
    for (const Case& c : cases) {
        LogCapture log;
        const auto factory = makeGstAssetWriterFactory({.disabledElements = c.disabled});
        const auto writer = factory->makeAssetWriter(file_, kFileTypeMPEG4).value();
        const auto input = c.audio ? factory->makeAudioInput({}) : factory->makeVideoInput({c.codec, 180, 320, {}});
        EXPECT_FALSE(writer->canAddInput(*input));
        EXPECT_THAT(log.take(), Contains(HasSubstr(c.package)));
        writer->addInput(input);
        EXPECT_FALSE(writer->startWriting()) << "there is no track";
    }
    EXPECT_EQ(recommendedVideoCodec({.preferHEVC = true}), kVideoCodecTypeHEVC);
    EXPECT_EQ(recommendedVideoCodec({.preferHEVC = true, .disabledElements = {"h265parse"}}), kVideoCodecTypeH264);
}

}  // namespace
}  // namespace selvio
