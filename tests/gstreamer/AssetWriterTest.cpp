#include "support/MediaProbe.h"

#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/linux/Recording.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <thread>

namespace selvio {
namespace {

using namespace test;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using ::testing::HasSubstr;

constexpr nanoseconds kStart = std::chrono::hours(7);  // master clocks do not begin at zero
constexpr nanoseconds kFrame{33'333'333};

std::shared_ptr<SampleBuffer> videoSample(std::shared_ptr<PixelBuffer> pixels, nanoseconds time) {
    return SampleBuffer::makeVideo(std::move(pixels), {kStart + time, kFrame});
}

std::shared_ptr<SampleBuffer> audioSample(nanoseconds time, nanoseconds length, int amplitude = 0, int rate = 48000, int channels = 1) {
    AudioData audio{rate, channels, {}};
    const auto frames = static_cast<std::size_t>(length.count() * rate / 1'000'000'000);
    for (std::size_t i = 0; i < frames * static_cast<std::size_t>(channels); ++i) {
        audio.samples.push_back(static_cast<std::int16_t>(amplitude * std::sin(0.13 * static_cast<double>(i))));
    }
    return SampleBuffer::makeAudio(std::move(audio), {kStart + time, length});
}

// Collects the log of a test, and lets it through as well.
class CapturedLog {
public:
    CapturedLog() : previous_(setLogSink([this](std::string_view line) { text_.append(line).push_back('\n'); })) {}
    ~CapturedLog() { setLogSink(previous_); }
    [[nodiscard]] const std::string& text() const { return text_; }  // once nothing logs any more

private:
    std::string text_;
    LogSink previous_;
};

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
        EXPECT_EQ(writer_->status(), AssetWriterStatus::Writing);
        writer_->startSessionAtSourceTime(kStart);
    }
    // As a caller that is not in real time: waits until the input is ready.
    bool append(const std::shared_ptr<AssetWriterInput>& input, const std::shared_ptr<SampleBuffer>& sample) {
        while (writer_->status() == AssetWriterStatus::Writing && !input->isReadyForMoreMediaData()) std::this_thread::yield();
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
    static VideoSettings h264(int width, int height) { return {kVideoCodecTypeH264, width, height, {{kVideoAverageBitRateKey, 1'500'000}}}; }

    TemporaryDirectory directory_;
    std::filesystem::path file_ = directory_.path() / "selvio_test.mp4";
    std::shared_ptr<AssetWriterFactory> factory_;
    std::shared_ptr<AssetWriter> writer_;
    std::shared_ptr<AssetWriterInput> video_;
    std::shared_ptr<AssetWriterInput> audio_;
};

TEST_F(AssetWriterTest, WritesEveryFrameInTheCodecAndSizeAskedFor) {
    struct Case {
        const char* codec;
        int width, height;  // of the file
        int frameWidth, frameHeight;
        PixelFormat format;
        const char* codecName;
        const char* tag;
    };
    const Case cases[] = {
        {kVideoCodecTypeH264, 360, 640, 360, 640, kPixelFormat420v, "h264", "avc1"},
        {kVideoCodecTypeH264, 360, 640, 202, 360, kPixelFormat32BGRA, "h264", "avc1"},
        {kVideoCodecTypeH264, 640, 360, 360, 640, kPixelFormat32BGRA, "h264", "avc1"},
        {kVideoCodecTypeHEVC, 360, 640, 640, 360, kPixelFormat420v, "hevc", "hvc1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.codec << " " << c.frameWidth << "x" << c.frameHeight);
        std::filesystem::remove(file_);
        make({c.codec, c.width, c.height, {{kVideoAverageBitRateKey, 500'000}}});
        start();
        for (int i = 0; i < 45; ++i) {
            const auto frame = greyFrame(c.frameWidth, c.frameHeight, c.format, static_cast<std::uint8_t>(40 + i));
            ASSERT_TRUE(append(video_, videoSample(frame, i * kFrame)));
        }
        ASSERT_EQ(finish(), AssetWriterStatus::Completed);
        const auto media = probe(file_);
        const auto video = streamOfType(media, "video");
        EXPECT_EQ(video.value("codec_name", ""), c.codecName);
        EXPECT_EQ(video.value("codec_tag_string", ""), c.tag);
        EXPECT_EQ(video.value("pix_fmt", ""), "yuv420p");
        EXPECT_EQ(video.value("width", 0), c.width);
        EXPECT_EQ(video.value("height", 0), c.height);
        EXPECT_EQ(video.value("nb_read_frames", ""), "45");
        EXPECT_NEAR(numberIn(video, "duration"), 1.5, 0.03);
        EXPECT_EQ(directory_.fileCount(), 1U) << "nothing else is left beside the file";

        std::ifstream bytes(file_, std::ios::binary);
        const std::string head((std::istreambuf_iterator<char>(bytes)), {});
        EXPECT_LT(head.find("moov"), head.find("mdat")) << "a player can start before it has all of the file";
    }
}

TEST_F(AssetWriterTest, FitsFramesWholeWithBlackBorders) {
    make(h264(360, 640));
    start();
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(append(video_, videoSample(greyFrame(640, 360, kPixelFormat32BGRA, 200), i * kFrame)));
    ASSERT_EQ(finish(), AssetWriterStatus::Completed);
    // One column down the middle: black, the picture (360 x 202), black.
    const std::string column =
        outputOf("ffmpeg -v error -i '" + file_.string() + "' -vf 'crop=2:640:180:0,scale=1:640' -frames:v 1 -pix_fmt gray -f rawvideo -");
    ASSERT_EQ(column.size(), 640U);
    const auto level = [&](std::size_t y) { return static_cast<int>(static_cast<unsigned char>(column[y])); };
    EXPECT_LT(level(200), 12);
    EXPECT_NEAR(level(320), 200, 8);
    EXPECT_LT(level(440), 12);
}

TEST_F(AssetWriterTest, PictureAndSoundStayTogether) {
    for (const std::vector<std::string>& disabled : {std::vector<std::string>{}, {"fdkaacenc", "avenc_aac"}}) {
        std::filesystem::remove(file_);
        make(h264(180, 320), true, {.disabledElements = disabled});
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
        const auto media = probe(file_);
        EXPECT_EQ(streamOfType(media, "audio").value("codec_name", ""), "aac");
        EXPECT_NEAR(numberIn(streamOfType(media, "audio"), "duration"), 2.0, 0.04);
        EXPECT_NEAR(numberIn(streamOfType(media, "video"), "duration"), 2.0, 0.04);
        const auto [white, tone] = onsets(file_);
        EXPECT_NEAR(white, 1.0, 0.02);
        EXPECT_NEAR(tone, white, 0.04);
    }
}

TEST_F(AssetWriterTest, ASilentMicrophoneDoesNotHoldTheFile) {
    make(h264(180, 320), true);
    start();
    for (int i = 0; i < 90; ++i) ASSERT_TRUE(append(video_, videoSample(greyFrame(180, 320, kPixelFormat420v, 90), i * kFrame)));
    ASSERT_EQ(finish(), AssetWriterStatus::Completed);
    const auto media = probe(file_);
    EXPECT_EQ(streamOfType(media, "video").value("nb_read_frames", ""), "90");
    EXPECT_NEAR(numberIn(streamOfType(media, "audio"), "duration"), 3.0, 0.05);
}

TEST_F(AssetWriterTest, LeavesOutWhatLiesBeforeTheSessionAndTimesThatDoNotRise) {
    make(h264(180, 320));
    start();
    const auto frame = greyFrame(180, 320, kPixelFormat420v, 90);
    EXPECT_TRUE(video_->appendSampleBuffer(videoSample(frame, -kFrame))) << "taken, and left out";
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(append(video_, videoSample(frame, i * kFrame)));
    EXPECT_FALSE(video_->appendSampleBuffer(videoSample(frame, 9 * kFrame)));
    EXPECT_FALSE(video_->appendSampleBuffer(SampleBuffer::makeVideo(frame, {})));
    EXPECT_FALSE(video_->appendSampleBuffer(audioSample(std::chrono::seconds(1), kFrame)));
    EXPECT_FALSE(video_->appendSampleBuffer(nullptr));
    ASSERT_EQ(finish(), AssetWriterStatus::Completed);
    EXPECT_FALSE(video_->appendSampleBuffer(videoSample(frame, 20 * kFrame)));
    EXPECT_EQ(streamOfType(probe(file_), "video").value("nb_read_frames", ""), "10");
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
    struct Case {
        const char* what;
        AssetWriterStatus expected;
        std::function<void()> act;
        const char* log;
    };
    const auto feed = [&](int frames) {
        for (int i = 0; i < frames; ++i) append(video_, videoSample(greyFrame(180, 320, kPixelFormat420v, 90), i * kFrame));
    };
    const Case cases[] = {
        {"nothing recorded", AssetWriterStatus::Failed, [] {}, "nothing was recorded"},
        {"cancelled", AssetWriterStatus::Cancelled, [&] { feed(10), writer_->cancelWriting(); }, ""},
        {"the directory is deleted", AssetWriterStatus::Failed, [&] { feed(10), std::filesystem::remove_all(directory_.path()); }, "could not move"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const CapturedLog captured;
        make(h264(180, 320));
        start();
        c.act();
        EXPECT_EQ(finish(), c.expected);
        EXPECT_THAT(captured.text(), HasSubstr(c.log));
        EXPECT_FALSE(std::filesystem::exists(file_));
        EXPECT_EQ(directory_.fileCount(), 0U);
        writer_.reset();
    }
}

TEST_F(AssetWriterTest, CannotStartWhereNoFileCanBeMade) {
    for (const auto& path : {directory_.path() / "missing" / "selvio_a.mp4", std::filesystem::path("/proc/selvio_a.mp4"), file_}) {
        SCOPED_TRACE(path);
        std::ofstream(file_) << "already here";
        const CapturedLog captured;
        factory_ = makeGstAssetWriterFactory();
        writer_ = factory_->makeAssetWriter(path, kFileTypeMPEG4).value();
        video_ = factory_->makeVideoInput(h264(180, 320));
        writer_->addInput(video_);
        EXPECT_FALSE(writer_->startWriting());
        EXPECT_EQ(writer_->status(), AssetWriterStatus::Failed);
        EXPECT_THAT(captured.text(), HasSubstr(path.string()));
        EXPECT_FALSE(video_->isReadyForMoreMediaData());
        EXPECT_EQ(finish(), AssetWriterStatus::Failed);
        EXPECT_EQ(directory_.fileCount(), 1U);
        EXPECT_EQ(std::filesystem::file_size(file_), 12U) << "a file that was there stays as it was";
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
        const CapturedLog captured;
        const auto factory = makeGstAssetWriterFactory({.disabledElements = c.disabled});
        const auto writer = factory->makeAssetWriter(file_, kFileTypeMPEG4).value();
        const auto input = c.audio ? factory->makeAudioInput({}) : factory->makeVideoInput({c.codec, 180, 320, {}});
        EXPECT_FALSE(writer->canAddInput(*input));
        EXPECT_THAT(captured.text(), HasSubstr(c.package));
    }
    EXPECT_EQ(recommendedVideoCodec({}), kVideoCodecTypeH264);
    EXPECT_EQ(recommendedVideoCodec({.preferHEVC = true}), kVideoCodecTypeHEVC);
    EXPECT_EQ(recommendedVideoCodec({.preferHEVC = true, .disabledElements = {"h265parse"}}), kVideoCodecTypeH264);
    EXPECT_FALSE(makeGstAssetWriterFactory()->makeAssetWriter(file_, "QuickTime"));
}

TEST_F(AssetWriterTest, StatusesOutsideTheUsualWay) {
    make(h264(180, 320));
    EXPECT_EQ(writer_->status(), AssetWriterStatus::Unknown);
    EXPECT_FALSE(video_->isReadyForMoreMediaData());
    EXPECT_EQ(finish(), AssetWriterStatus::Unknown) << "finishing what was never started ends, and says so";
    start();
    EXPECT_FALSE(writer_->startWriting()) << "once only";
    writer_.reset();  // given up while it writes
    EXPECT_EQ(directory_.fileCount(), 0U);
}

}  // namespace
}  // namespace selvio
