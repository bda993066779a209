#include <SelvioFacialCapture/platform/Capture.h>

#include <platform/linux/gstreamer/AudioTimeline.h>
#include <platform/linux/gstreamer/VideoEncoders.h>

#include <gtest/gtest.h>

#include <map>

namespace selvio {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

TEST(PlaceAudio, PutsEveryBlockWhereItsTimeSays) {
    struct Case {
        const char* what;
        std::int64_t written;
        nanoseconds time;
        AudioPlacement expected;
    };
    // Blocks of 480 frames at 48 kHz: 10 ms.
    const Case cases[] = {
        {"first block at the start", 0, milliseconds(0), {0, 0}},
        {"first block late: silence up to it, however short", 0, milliseconds(5), {240, 0}},
        {"first block begins before the start: its head is cut", 0, milliseconds(-4), {0, 192}},
        {"block entirely before the start", 0, milliseconds(-50), {0, 480}},
        {"block that follows on", 4800, milliseconds(100), {0, 0}},
        {"jitter joins seamlessly", 4800, milliseconds(110), {0, 0}},
        {"jitter backwards too", 4800, milliseconds(90), {0, 0}},
        {"a hole is filled", 4800, milliseconds(350), {12000, 0}},
        {"an overlap beyond jitter is cut", 4800, milliseconds(88), {0, 480}},
        {"rounds to the nearest frame", 0, nanoseconds(31'250), {2, 0}},
    };
    for (const Case& c : cases) EXPECT_EQ(placeAudio(c.written, c.time, 480, 48000), c.expected) << c.what;
}

TEST(AudioFrameAt, IsExactFarFromTheStartAndAtOddRates) {
    EXPECT_EQ(audioFrameAt(std::chrono::hours(24), 44100), 24LL * 3600 * 44100);
    EXPECT_EQ(audioFrameAt(milliseconds(-1), 44100), -44);
}

TEST(VideoEncoders, HardwareByRankComesBeforeSoftwareInOrder) {
    using Ranks = std::map<std::string, int>;
    struct Case {
        const char* codec;
        Ranks installed;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {kVideoCodecTypeH264, {}, {}},
        {kVideoCodecTypeH264, {{"openh264enc", 128}, {"x264enc", 0}}, {"x264enc", "openh264enc"}},
        {kVideoCodecTypeH264, {{"x264enc", 300}, {"v4l2h264enc", 257}, {"vah264enc", 0}}, {"v4l2h264enc", "vah264enc", "x264enc"}},
        {kVideoCodecTypeH264, {{"vah264enc", 256}, {"nvh264enc", 256}}, {"vah264enc", "nvh264enc"}},
        {kVideoCodecTypeHEVC, {{"x265enc", 128}, {"x264enc", 256}, {"vah265lpenc", 1}}, {"vah265lpenc", "x265enc"}},
    };
    for (const Case& c : cases) {
        const auto rank = [&](const std::string& name) { return c.installed.contains(name) ? c.installed.at(name) : -1; };
        std::vector<std::string> names;
        for (const VideoEncoder* encoder : installedEncoders(*findVideoCodec(c.codec), rank)) names.push_back(encoder->element);
        EXPECT_EQ(names, c.expected) << c.codec;
    }
    EXPECT_EQ(findVideoCodec("VP9"), nullptr);
}

TEST(VideoEncoders, BitRateIsPutInTheEncodersOwnUnit) {
    using Setting = std::pair<std::string, std::string>;
    EXPECT_EQ(bitRateSetting({.element = "a", .unit = BitRateUnit::KilobitsPerSecond}, 1'627'777), (Setting{"bitrate", "1628"}));
    EXPECT_EQ(bitRateSetting({.element = "b", .unit = BitRateUnit::BitsPerSecond}, 1'627'777), (Setting{"bitrate", "1627777"}));
    const auto [property, value] = bitRateSetting({.element = "c", .unit = BitRateUnit::V4l2Control}, 1'627'777);
    EXPECT_EQ(property, "extra-controls");
    EXPECT_NE(value.find("video_bitrate=1627777"), std::string::npos);
}

}  // namespace
}  // namespace selvio
