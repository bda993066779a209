#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <set>

#include "camera/rules/RecordingRules.h"
#include "camera/rules/SessionRules.h"

namespace selvio::rules {
namespace {

constexpr PixelFormat k420v = kPixelFormat420v;

TEST(CameraRules, formatSearchStopsOnlyAtANewWidest) {
    const auto format = [](int width, int height, PixelFormat code = k420v) {
        return CaptureDeviceFormat{{code, width, height}, 30.0};
    };
    const struct {
        const char* what;
        std::vector<CaptureDeviceFormat> formats;
        std::int64_t code;
        std::optional<CaptureDeviceFormat> found;
    } rows[] = {
        {"stops at an exact match", {format(1280, 720), format(1920, 1080)}, k420v, format(1280, 720)},
        {"exact after wider", {format(1920, 1080), format(1280, 720)}, k420v, format(1920, 1080)},
        {"exact after equally wide", {format(1280, 960), format(1280, 720)}, k420v, format(1280, 960)},
        {"first of the widest", {format(640, 480), format(960, 720), format(960, 540)}, k420v, format(960, 720)},
        {"other pixel formats are passed over", {format(1280, 720, 32), format(640, 480)}, k420v, format(640, 480)},
        {"no such pixel format; 0 is a code like others", {format(1280, 720)}, 0, std::nullopt},
        {"code with bits above the 32", {format(1280, 720)}, (std::int64_t{1} << 40) | k420v, std::nullopt},
    };
    for (const auto& row : rows) EXPECT_EQ(searchFormat(row.formats, row.code, {1280, 720}), row.found) << row.what;
}

TEST(CameraRules, bitRates) {
    const std::int64_t rows[][3] = {
        {10, 500'000, 1'500'000}, {11, 561'111, 1'627'777}, {55, 3'250'000, 7'250'000}, {100, 6'000'000, 13'000'000}};
    for (const auto& [quality, hevc, other] : rows) {
        EXPECT_EQ(averageBitRate(quality, kVideoCodecTypeHEVC, 11), hevc);
        EXPECT_EQ(averageBitRate(quality, kVideoCodecTypeHEVC, 10), other);
        EXPECT_EQ(averageBitRate(quality, kVideoCodecTypeH264, 13), other);
    }
}

TEST(CameraRules, settingsKeepWhatTheyDoNotDecide) {
    const auto settings =
        recordingSettings({"H264", 640, 480, {{"Profile", 7}, {"AverageBitRate", 1}}}, std::nullopt, 10, 13);
    EXPECT_EQ(std::pair(settings.width, settings.height), std::pair(640, 480)) << "the orientation cannot be known";
    EXPECT_EQ(settings.codec, "H264");
    EXPECT_EQ(settings.compressionProperties,
              (std::map<std::string, std::int64_t>{{"Profile", 7}, {"AverageBitRate", 1'500'000}}));
}

TEST(CameraRules, fileNamesAreInLocalTime) {
    const char* const before = std::getenv("TZ");
    const std::string saved = before ? before : "";
    const struct {
        const char* zone;
        double seconds;
        const char* name;
    } rows[] = {{"UTC0", 1.9996, "selvio_2001-01-01_00-00-01-999.mp4"},
                {"IST-5:30", 0.5, "selvio_2001-01-01_05-30-00-500.mp4"},
                {"EST5", -0.25, "selvio_2000-12-31_18-59-59-750.mp4"}};
    for (const auto& row : rows) {
        setenv("TZ", row.zone, 1);
        EXPECT_EQ((tzset(), recordingFileName(row.seconds)), row.name);
        EXPECT_TRUE(isLeftoverRecording(row.name));
    }
    before ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();
}

}  // namespace
}  // namespace selvio::rules
