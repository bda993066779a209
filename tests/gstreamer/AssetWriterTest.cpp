#include "platform/linux/gstreamer/CaptureRules.h"
#include "platform/linux/gstreamer/Mp4Index.h"
#include "platform/linux/gstreamer/VideoEncoders.h"
#include "support/LogCapture.h"
#include "support/MediaProbe.h"

#include <SelvioFacialCapture/linux/Recording.h>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <future>
#include <map>
#include <random>
#include <thread>

namespace {

using namespace selvio;
using namespace selvio::rules;

using namespace ::testing;
using std::chrono::nanoseconds;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr nanoseconds kStart = 7h;  // master clocks do not begin at zero
constexpr nanoseconds kFrame = 33'333'333ns;

std::shared_ptr<SampleBuffer> videoSample(std::shared_ptr<PixelBuffer> pixels, nanoseconds time) {
    return SampleBuffer::makeVideo(std::move(pixels), {kStart + time, kFrame});
}

/// The bytes of a sample of each plane.
using Colour = std::vector<std::vector<std::uint8_t>>;

std::shared_ptr<PixelBuffer> flat(int width, int height, PixelFormat format, const Colour& colour) {
    return painted(width, height, format, [&](std::uint8_t* sample, int, int, int plane) {
        std::ranges::copy(colour[static_cast<std::size_t>(plane)], sample);
    });
}

struct Writer : Test {
    /// False if nothing can be written.
    bool start(const VideoSettings& settings, bool withAudio = false) {
        const auto factory = makeGstAssetWriterFactory();
        writer_ = factory->makeAssetWriter(file_, kFileTypeMPEG4).value();
        writer_->addInput(video_ = factory->makeVideoInput(settings));
        if (withAudio) writer_->addInput(audio_ = factory->makeAudioInput({}));
        const bool isWriting = writer_->startWriting();
        writer_->startSessionAtSourceTime(kStart);
        return isWriting;
    }
    // As a caller that is not in real time: waits until the input is ready.
    bool append(const std::shared_ptr<SampleBuffer>& sample) {
        while (writer_->status() == AssetWriterStatus::Writing && !video_->isReadyForMoreMediaData())
            std::this_thread::yield();
        return video_->appendSampleBuffer(sample);
    }
    /// A small recording that goes on.
    void record(int frames, bool withAudio = false) {
        ASSERT_TRUE(start(h264(180, 320), withAudio));
        for (int i = 0; i < frames; ++i) append(videoSample(grey_, i * kFrame));
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

    const std::shared_ptr<PixelBuffer> grey_ = flat(180, 320, kPixelFormat420v, {{90}, {128, 128}});
    TemporaryDirectory directory_;
    fs::path file_ = directory_.path() / "selvio_test.mp4";
    std::shared_ptr<AssetWriter> writer_;
    std::shared_ptr<AssetWriterInput> video_;
    std::shared_ptr<AssetWriterInput> audio_;
};

TEST_F(Writer, WritesEveryFrameWholeInTheCodecAndSizeAskedFor) {
    // The file is 360x640. What does not fill its height has a black border above and below.
    const std::tuple<const char*, int, int, PixelFormat, Colour, std::string, bool> cases[] = {
        {kVideoCodecTypeH264, 202, 360, kPixelFormat32BGRA, {{0, 0, 255, 255}}, "h264,avc1,", true},
        {kVideoCodecTypeH264, 360, 640, kPixelFormat32ARGB, {{255, 255, 0, 0}}, "h264,avc1,", true},
        {kVideoCodecTypeHEVC, 640, 360, kPixelFormat420v, {{81}, {90, 240}}, "hevc,hvc1,", false},
    };
    for (const auto& [codec, width, height, format, red, stream, fills] : cases) {
        SCOPED_TRACE(format);
        fs::remove(file_);
        ASSERT_TRUE(start({codec, 360, 640, {{kVideoAverageBitRateKey, 500'000}}}));
        const auto frame = flat(width, height, format, red);
        for (int i = 0; i < 45; ++i) ASSERT_TRUE(append(videoSample(frame, i * kFrame)));
        ASSERT_EQ(finish(), AssetWriterStatus::Completed);
        EXPECT_EQ(streamOf(file_, "v", "codec_name,codec_tag_string,width,height,pix_fmt,nb_read_frames"),
                  stream + "360,640,yuv420p,45");
        EXPECT_NEAR(secondsOf(file_, "v"), 1.5, 0.03);
        EXPECT_EQ(fs::status(file_).permissions(), fs::perms(0600));
        const std::string head = contentOf(file_);
        EXPECT_LT(head.find("moov"), head.find("mdat")) << "a player can start before it has all of the file";
        const std::string column =
            outputOf("ffmpeg -v error -i '" + file_.string() +
                     "' -vf 'crop=2:640:180:0,scale=1:640' -frames:v 1 -pix_fmt rgb24 -f rawvideo -");
        ASSERT_EQ(column.size(), 1920U);
        for (const std::size_t row : {200U, 320U, 440U}) {
            const auto* const rgb = reinterpret_cast<const unsigned char*>(&column[3 * row]);
            EXPECT_NEAR(rgb[0] - rgb[1], fills || row == 320 ? 255 : 0, 35) << row;
        }
    }
}

TEST_F(Writer, NeitherASilentMicrophoneNorFramesOutOfOrderHarmTheFile) {
    record(0, true);
    EXPECT_TRUE(video_->appendSampleBuffer(videoSample(grey_, -kFrame))) << "taken, and left out";
    for (int i = 0; i < 90; ++i) ASSERT_TRUE(append(videoSample(grey_, i * kFrame)));
    const auto sound = SampleBuffer::makeAudio({48000, 1, {}}, {kStart + 5s, kFrame});
    for (const auto& wrong : {videoSample(grey_, 89 * kFrame), SampleBuffer::makeVideo(grey_, {}), sound, {}})
        EXPECT_FALSE(video_->appendSampleBuffer(wrong));
    ASSERT_EQ(finish(), AssetWriterStatus::Completed);
    EXPECT_FALSE(video_->appendSampleBuffer(videoSample(grey_, 100 * kFrame)));
    EXPECT_EQ(streamOf(file_, "v", "nb_read_frames"), "90");
    EXPECT_NEAR(secondsOf(file_, "a"), 3.0, 0.05);
}

// Whatever the settings expected before the camera was opened.
TEST_F(Writer, BitRateAndKeyFramesFollowTheFramesOwnRate) {
    std::mt19937 random(1);
    std::vector<std::shared_ptr<PixelBuffer>> noisy(30);
    for (auto& frame : noisy) {
        frame = painted(360, 640, kPixelFormat420v, [&](std::uint8_t* sample, int, int, int plane) {
            std::fill_n(sample, plane + 1, static_cast<std::uint8_t>(128 + (plane == 0 ? random() % 48 : 0)));
        });
    }
    constexpr int kSeconds = 7;  // which the command below knows
    for (const int rate : {10, 25, 60}) {
        SCOPED_TRACE(rate);
        fs::remove(file_);
        auto settings = h264(360, 640);
        settings.compressionProperties[kVideoExpectedSourceFrameRateKey] = 30;
        ASSERT_TRUE(start(settings));
        const nanoseconds duration(1'000'000'000 / rate);
        for (std::size_t i = 0; i < std::size_t{kSeconds} * static_cast<std::size_t>(rate); ++i)
            ASSERT_TRUE(append(SampleBuffer::makeVideo(noisy[i % 30], {kStart + i * duration, duration})));
        ASSERT_EQ(finish(), AssetWriterStatus::Completed);
        EXPECT_NEAR(static_cast<double>(fs::file_size(file_)) * 8 / kSeconds, 1'500'000, 150'000);
        // The times of key frames, as far as one comes too late.
        EXPECT_EQ(
            outputOf("ffprobe -v error -skip_frame nokey -show_entries frame=pts_time -of csv=p=0 '" + file_.string() +
                     "' | awk '$1 - last > 2.01 {print} {last = $1} END {if (last < 4.99) print \"last\", last}'"),
            "");
    }
}

TEST_F(Writer, TakesItsOwnSizeOfTheDiskAndSaysWhenThatIsFull) {
    const auto part = directory_.path() / "selvio_test.part.mp4";
    const auto elsewhere = directory_.write("elsewhere", "somebody's");
    fs::create_symlink(elsewhere, part);  // is not followed
    LogCapture log;
    record(30);
    std::map<std::string, int> open;  // files without a name take space, too
    for (const auto& descriptor : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const auto file = fs::read_symlink(descriptor, gone).string();
        if (file.starts_with(directory_.path().string())) open[file] = std::stoi(descriptor.path().filename());
    }
    ASSERT_THAT(open, ElementsAre(Pair(part.string(), _)));
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(::dup2(full, open.at(part)), 0);
    ::close(full);
    for (int i = 30; i < 60; ++i) append(videoSample(grey_, i * kFrame));
    EXPECT_EQ(finish(), AssetWriterStatus::Failed);
    EXPECT_THAT(log.take(), Contains("Recording failed: no space is left on the disk"));
    EXPECT_EQ(entriesIn(directory_.path()), 1U) << "elsewhere";
    EXPECT_EQ(contentOf(elsewhere), "somebody's");
}

TEST_F(Writer, TheIndexComesToTheFrontUnlessItCannot) {
    const auto atom = [](const std::string& type, const std::string& content) {
        std::string size;
        for (const int shift : {24, 16, 8, 0}) size += static_cast<char>((content.size() + 8) >> shift);
        return size + type + content;
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
    const std::tuple<std::string, std::string, bool> rows[] = {
        {head + media + index("stco", before), head + index("stco", after) + media, false},
        {head + media + index("co64", before64), head + index("co64", after64) + media, false},
        {head + index("stco", before) + media, "", false},
        {head + media + index("stco", "\xff\xff\xff\xff" + before.substr(4)), "", false},  // would be beyond 4 GB
        {head + media, "", true},
        {head + media + index("stco", before) + atom("free", "x"), "", true},
        {head + media.substr(0, 100), "", true},
    };
    for (const auto& [file, result, fails] : rows) {
        std::ofstream(file_, std::ios::binary) << file;
        EXPECT_EQ(moveIndexToFront(file_).has_value(), fails) << file.size();
        EXPECT_TRUE(contentOf(file_) == (result.empty() ? file : result)) << file.size();
    }
}

TEST_F(Writer, InRealTimeDropsRatherThanWaits) {
    ASSERT_TRUE(start(h264(720, 1280)));
    video_->setExpectsMediaDataInRealTime(true);
    const auto frame = flat(720, 1280, kPixelFormat32BGRA, {{90, 90, 90, 90}});
    int taken = 0;
    for (int i = 0; i < 200; ++i) taken += video_->appendSampleBuffer(videoSample(frame, i * kFrame)) ? 1 : 0;
    EXPECT_GE(taken, 5);
    EXPECT_LT(taken, 200) << "no encoder takes 200 frames at once";
    ASSERT_EQ(finish(), AssetWriterStatus::Completed);
    EXPECT_EQ(streamOf(file_, "v", "nb_read_frames"), std::to_string(taken));
    EXPECT_EQ(frame.use_count(), 1) << "the frames' memory is shared while it is encoded, and then let go";
}

TEST_F(Writer, FailureAndCancellingLeaveNoFile) {
    LogCapture log;
    record(0);
    EXPECT_EQ(finish(), AssetWriterStatus::Failed);
    EXPECT_THAT(log.take(), Contains(HasSubstr("nothing was recorded")));
    record(10);
    writer_->cancelWriting();
    EXPECT_EQ(finish(), AssetWriterStatus::Cancelled);
    record(10);
    writer_.reset();  // given up while it writes
    EXPECT_EQ(entriesIn(directory_.path()), 0U);
    for (const auto& path :
         {directory_.write("there.mp4", "already here"), (directory_.path() / "missing/it.mp4").string()}) {
        file_ = path;
        EXPECT_FALSE(start(h264(180, 320)));
        EXPECT_FALSE(video_->isReadyForMoreMediaData());
        EXPECT_EQ(finish(), AssetWriterStatus::Failed);
        EXPECT_THAT(log.take(), Contains(HasSubstr(path)));
    }
    EXPECT_EQ(contentOf(directory_.path() / "there.mp4"), "already here");
}

TEST_F(Writer, NamesThePackageThatIsMissing) {
    const std::tuple<const char*, std::vector<std::string>, const char*> cases[] = {
        {kVideoCodecTypeHEVC, {"h265parse"}, "gstreamer1.0-plugins-bad"},
        {kVideoCodecTypeH264, {"mp4mux"}, "gstreamer1.0-plugins-good"},
        {nullptr, {"avenc_aac", "voaacenc", "fdkaacenc"}, "gstreamer1.0-libav"},
        {"VP9", {}, "\"VP9\" is not recorded"},
    };
    for (const auto& [codec, disabled, package] : cases) {
        LogCapture log;
        const auto factory = makeGstAssetWriterFactory({.disabledElements = disabled});
        const auto writer = factory->makeAssetWriter(file_, kFileTypeMPEG4).value();
        const auto input = codec ? factory->makeVideoInput({codec, 180, 320, {}}) : factory->makeAudioInput({});
        EXPECT_FALSE(writer->canAddInput(*input));
        EXPECT_THAT(log.take(), Contains(HasSubstr(package)));
        writer->addInput(input);
        EXPECT_FALSE(writer->startWriting()) << "there is no track";
    }
    EXPECT_EQ(recommendedVideoCodec({.preferHEVC = true}), kVideoCodecTypeHEVC);
    EXPECT_EQ(recommendedVideoCodec({.preferHEVC = true, .disabledElements = {"h265parse"}}), kVideoCodecTypeH264);
}

TEST(PlaceAudio, PutsEveryBlockWhereItsTimeSays) {
    // Blocks of 480 frames at 48 kHz: 10 ms.
    const std::tuple<const char*, std::int64_t, nanoseconds, AudioPlacement> cases[] = {
        {"first block late: silence up to it, however short", 0, 5ms, {240, 0}},
        {"first block begins before the start: its head is cut", 0, -4ms, {0, 192}},
        {"block entirely before the start", 0, -50ms, {0, 480}},
        {"jitter joins seamlessly", 4800, 110ms, {0, 0}},
        {"a hole is filled", 24LL * 3600 * 48000, 24h + 250ms, {12000, 0}},
        {"an overlap beyond jitter is cut", 4800, 88ms, {0, 480}},
    };
    for (const auto& [what, written, time, expected] : cases)
        EXPECT_EQ(placeAudio(written, time, 480, 48000), expected) << what;
}

TEST(VideoEncoders, HardwareByRankComesBeforeSoftwareInOrder) {
    const std::map<std::string, int> installed{
        {"x264enc", 300}, {"openh264enc", 400}, {"v4l2h264enc", 257}, {"vah264enc", 0}, {"x265enc", 128}};
    const auto rank = [&](const std::string& name) { return installed.contains(name) ? installed.at(name) : -1; };
    std::vector<std::string> names;
    for (const VideoEncoder* encoder : installedEncoders(*findVideoCodec(kVideoCodecTypeH264), rank))
        names.push_back(encoder->element);
    EXPECT_EQ(names, (std::vector<std::string>{"v4l2h264enc", "vah264enc", "x264enc", "openh264enc"}));
}

}  // namespace
