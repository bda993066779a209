#include <SelvioFacialCapture/platform/Capture.h>

#include <platform/linux/gstreamer/CaptureRules.h>
#include <platform/linux/gstreamer/VideoEncoders.h>

#include <gtest/gtest.h>

#include <map>

namespace selvio {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr auto kNV12 = kPixelFormat420v;
constexpr auto kBGRA = kPixelFormat32BGRA;

TEST(PreferredRate, IsThirtyOrTheNextBest) {
    struct Case {
        std::vector<FrameRate> rates;
        FrameRate expected;
    };
    const Case cases[] = {
        {{{60, 1}, {30000, 1001}}, {30000, 1001}},
        {{{120, 1}, {60, 1}}, {60, 1}},
        {{{5, 1}, {15, 2}}, {15, 2}},
        {{{0, 1}, {1, 0}, {2147483647, 1}, {10, 1}}, {10, 1}},
        {ratesBetween({1, 1}, {60, 1}), {30, 1}},
        {ratesBetween({1, 1}, {25, 1}), {25, 1}},
        {ratesBetween({50, 1}, {60, 1}), {60, 1}},
    };
    for (const Case& c : cases) EXPECT_EQ(preferredRate(c.rates), c.expected);
}

TEST(ChooseMode, PrefersFullRateThenNoConversionThenRaw) {
    const CameraMode yuyv{false, "YUY2", 1280, 720, {10, 1}};
    const CameraMode jpeg{true, "", 1280, 720, {30, 1}};
    const CameraMode nv12{false, "NV12", 1280, 720, {30, 1}};
    const CameraMode i420{false, "I420", 1280, 720, {60, 1}};
    const CameraMode small{false, "NV12", 640, 480, {30, 1}};
    struct Case {
        const char* what;
        std::vector<CameraMode> modes;
        PixelFormat format;
        std::optional<CameraMode> expected;
    };
    const Case cases[] = {
        {"a slow raw mode gives way to Motion JPEG", {yuyv, jpeg}, kBGRA, jpeg},
        {"no conversion", {jpeg, i420, nv12, yuyv}, kNV12, nv12},
        {"raw before JPEG; beyond 30 a second is no better", {jpeg, i420}, kNV12, i420},
        {"only the size that was asked for", {small}, kNV12, std::nullopt},
        {"slow is better than nothing", {yuyv, small}, kBGRA, yuyv},
    };
    for (const Case& c : cases) {
        const CameraMode* const chosen = chooseMode(c.modes, 1280, 720, c.format);
        EXPECT_EQ(chosen != nullptr ? std::optional(*chosen) : std::nullopt, c.expected) << c.what;
    }
}

TEST(Presets, StandForSizes) {
    const auto sized = [](std::vector<std::pair<int, int>> sizes) {
        std::vector<CameraMode> modes;
        for (const auto& [w, h] : sizes) modes.push_back({false, "NV12", w, h, {30, 1}});
        return formatsOf(modes);
    };
    struct Case {
        std::vector<std::pair<int, int>> sizes;
        const char* preset;  // null: nothing was set
        std::pair<int, int> expected;
    };
    const Case cases[] = {
        {{{720, 1280}}, kCaptureSessionPreset1280x720, {720, 1280}},
        {{{640, 480}, {1280, 720}}, kCaptureSessionPreset1920x1080, {0, 0}},
        {{{640, 480}, {3840, 2160}, {1280, 960}}, kCaptureSessionPresetHigh, {1280, 960}},
        {{{3840, 2160}, {2560, 1440}}, kCaptureSessionPresetHigh, {2560, 1440}},
        {{{1920, 1080}, {1280, 720}}, nullptr, {1280, 720}},
        {{{320, 240}, {640, 480}}, nullptr, {640, 480}},
    };
    for (const Case& c : cases) {
        const auto format =
            c.preset != nullptr ? formatForPreset(sized(c.sizes), c.preset) : initialFormat(sized(c.sizes));
        const auto found = format.value_or(CaptureDeviceFormat{}).formatDescription;
        EXPECT_EQ(std::pair(found.width, found.height), c.expected) << (c.preset != nullptr ? c.preset : "initial");
    }
}

TEST(CropFor, CutsTheMiddleInTheShapeOfTheOrientation) {
    using O = VideoOrientation;
    struct Case {
        int width, height;
        O orientation;
        FrameCrop expected;
    };
    const Case cases[] = {
        {1280, 720, O::Portrait, {438, 0, 404, 720}},      {1280, 720, static_cast<O>(0), {0, 0, 1280, 720}},
        {720, 1280, O::LandscapeLeft, {0, 438, 720, 404}}, {1920, 1080, O::PortraitUpsideDown, {656, 0, 606, 1080}},
        {480, 480, O::Portrait, {104, 0, 270, 480}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(cropFor(c.width, c.height, c.orientation), c.expected) << c.width << "x" << c.height;
}

TEST(Preview, FillsTheSurfaceMirrored) {
    // The left quarter of the frame appears at the right; 100 x 200 shows the middle half of a square.
    EXPECT_EQ(onMirroredSurface({0, 0, 0.25, 1}, 100, 100, {200, 200}), (Rect{150, 0, 50, 200}));
    EXPECT_EQ(onMirroredSurface({0.5, 0.25, 0.25, 0.5}, 100, 100, {100, 200}), (Rect{0, 50, 50, 100}));
}

TEST(AudioClock, SmoothsJitterFollowsDriftAndJumpsOverLosses) {
    AudioClock clock;
    const milliseconds block{10};
    EXPECT_EQ(clock.place(milliseconds(5000), 480, 48000), milliseconds(5000));
    for (int i = 1; i <= 50; ++i) {
        const nanoseconds ideal = milliseconds(5000) + i * block;
        const nanoseconds placed = clock.place(ideal + milliseconds(i % 2 == 0 ? 9 : 0), 480, 48000);
        EXPECT_LT(std::chrono::abs(placed - ideal), milliseconds(6)) << i;
    }
    nanoseconds placed{0};
    for (int i = 51; i <= 250; ++i) placed = clock.place(milliseconds(5040) + i * block, 480, 48000);
    EXPECT_LT(std::chrono::abs(placed - milliseconds(5040) - 250 * block), milliseconds(1))
        << "a lasting offset is taken up";
    EXPECT_EQ(clock.place(milliseconds(9000), 480, 48000), milliseconds(9000));
}

TEST(PlaceAudio, PutsEveryBlockWhereItsTimeSays) {
    struct Case {
        const char* what;
        std::int64_t written;
        nanoseconds time;
        AudioPlacement expected;
    };
    // Blocks of 480 frames at 48 kHz: 10 ms.
    const Case cases[] = {
        {"first block late: silence up to it, however short", 0, milliseconds(5), {240, 0}},
        {"first block begins before the start: its head is cut", 0, milliseconds(-4), {0, 192}},
        {"block entirely before the start", 0, milliseconds(-50), {0, 480}},
        {"jitter joins seamlessly", 4800, milliseconds(110), {0, 0}},
        {"a hole is filled", 4800, milliseconds(350), {12000, 0}},
        {"an overlap beyond jitter is cut", 4800, milliseconds(88), {0, 480}},
        {"a hole is filled exactly after a day",
         24LL * 3600 * 48000,
         std::chrono::hours(24) + milliseconds(250),
         {12000, 0}},
        {"rounds to the nearest frame", 0, nanoseconds(31'250), {2, 0}},
    };
    for (const Case& c : cases) EXPECT_EQ(placeAudio(c.written, c.time, 480, 48000), c.expected) << c.what;
}

TEST(VideoEncoders, HardwareByRankComesBeforeSoftwareInOrder) {
    using Ranks = std::map<std::string, int>;
    struct Case {
        const char* codec;
        Ranks installed;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {kVideoCodecTypeH264, {{"openh264enc", 128}, {"x264enc", 0}}, {"x264enc", "openh264enc"}},
        {kVideoCodecTypeH264,
         {{"x264enc", 300}, {"v4l2h264enc", 257}, {"vah264enc", 0}},
         {"v4l2h264enc", "vah264enc", "x264enc"}},
        {kVideoCodecTypeH264, {{"vah264enc", 256}, {"nvh264enc", 256}}, {"vah264enc", "nvh264enc"}},
        {kVideoCodecTypeHEVC, {{"x265enc", 128}, {"x264enc", 256}, {"vah265lpenc", 1}}, {"vah265lpenc", "x265enc"}},
    };
    for (const Case& c : cases) {
        const auto rank = [&](const std::string& name) {
            return c.installed.contains(name) ? c.installed.at(name) : -1;
        };
        std::vector<std::string> names;
        for (const VideoEncoder* encoder : installedEncoders(*findVideoCodec(c.codec), rank))
            names.push_back(encoder->element);
        EXPECT_EQ(names, c.expected) << c.codec;
    }
}

}  // namespace
}  // namespace selvio
