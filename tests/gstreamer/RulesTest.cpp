#include <SelvioFacialCapture/platform/Capture.h>

#include <platform/linux/gstreamer/CaptureRules.h>
#include <platform/linux/gstreamer/VideoEncoders.h>

#include <gtest/gtest.h>

#include <map>

namespace selvio {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

TEST(CaptureRules, PreferTheRateOfThirtyOrTheNextBest) {
    const std::pair<std::vector<FrameRate>, FrameRate> rows[] = {
        {{{120, 1}, {60, 1}}, {60, 1}},
        {{{0, 1}, {1, 0}, {2147483647, 1}, {5, 1}, {15, 2}}, {15, 2}},
        {ratesBetween({1, 1}, {60, 1}), {30, 1}},
        {ratesBetween({50, 1}, {60, 1}), {60, 1}},
    };
    for (const auto& [rates, expected] : rows) EXPECT_EQ(preferredRate(rates), expected);
}

TEST(CaptureRules, PreferFullRateThenNoConversionThenRaw) {
    const CameraMode yuyv{false, "YUY2", 1280, 720, {10, 1}};
    const CameraMode jpeg{true, "", 1280, 720, {30, 1}};
    const CameraMode nv12{false, "NV12", 1280, 720, {30, 1}};
    const CameraMode i420{false, "I420", 1280, 720, {60, 1}};
    const CameraMode small{false, "NV12", 640, 480, {30, 1}};
    const std::pair<std::vector<CameraMode>, std::optional<CameraMode>> rows[] = {
        {{yuyv, jpeg}, jpeg}, {{jpeg, i420, nv12}, nv12}, {{jpeg, i420}, i420}, {{small}, std::nullopt}};
    for (const auto& [modes, expected] : rows) {
        const CameraMode* const chosen = chooseMode(modes, 1280, 720, kPixelFormat420v);
        EXPECT_EQ(chosen != nullptr ? std::optional(*chosen) : std::nullopt, expected) << modes[0].format;
    }
}

TEST(CaptureRules, PresetsStandForSizes) {
    // No preset: nothing was set.
    const std::tuple<std::vector<std::pair<int, int>>, const char*, std::pair<int, int>> cases[] = {
        {{{640, 480}, {1280, 720}}, kCaptureSessionPreset1920x1080, {0, 0}},
        {{{640, 480}, {3840, 2160}, {1280, 960}}, kCaptureSessionPresetHigh, {1280, 960}},
        {{{1920, 1080}, {1280, 720}}, nullptr, {1280, 720}},
        {{{320, 240}, {640, 480}}, nullptr, {640, 480}}};
    for (const auto& [sizes, preset, expected] : cases) {
        std::vector<CaptureDeviceFormat> formats;
        for (const auto& [w, h] : sizes) formats.push_back({{kPixelFormat420v, w, h}, 30});
        const auto found = preset != nullptr ? formatForPreset(formats, preset) : initialFormat(formats);
        const auto size = found.value_or(CaptureDeviceFormat{}).formatDescription;
        EXPECT_EQ(std::pair(size.width, size.height), expected);
    }
}

TEST(CaptureRules, TheMiddleIsCutInTheShapeOfTheOrientation) {
    EXPECT_EQ(cropFor(720, 1280, VideoOrientation::LandscapeLeft), (FrameCrop{0, 438, 720, 404}));
    EXPECT_EQ(cropFor(1280, 720, VideoOrientation::NotSet), (FrameCrop{0, 0, 1280, 720}));
}

TEST(AudioClock, SmoothsJitterFollowsDriftAndJumpsOverLosses) {
    AudioClock clock;
    constexpr nanoseconds start = 5000ms, block = 10ms;
    EXPECT_EQ(clock.place(start, 480, 48000), start);
    for (int i = 1; i <= 50; ++i) {
        const nanoseconds placed = clock.place(start + i * block + (i % 2 == 0 ? 9ms : 0ms), 480, 48000);
        EXPECT_LT(std::chrono::abs(placed - start - i * block), 6ms) << i;
    }
    nanoseconds placed{0};
    for (int i = 51; i <= 250; ++i) placed = clock.place(5040ms + i * block, 480, 48000);
    EXPECT_LT(std::chrono::abs(placed - 7540ms), 1ms) << "a lasting offset is taken up";
    EXPECT_EQ(clock.place(9000ms, 480, 48000), 9000ms);
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
}  // namespace selvio
