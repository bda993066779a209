#include "camera/rules/RecordingRules.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace selvio::rules {
namespace {

constexpr std::string_view kFilePrefix = "selvio_";
constexpr std::string_view kFileSuffix = ".mp4";

}  // namespace

std::int64_t averageBitRate(SelvioFacialCaptureVideoQuality quality, std::string_view codec, int serviceLevel) {
    if (serviceLevel >= 11 && codec == kVideoCodecTypeHEVC) return (5'500'000 * quality - 55'000'000) / 90 + 500'000;
    return (11'500'000 * quality - 115'000'000) / 90 + 1'500'000;
}

VideoSettings recordingSettings(VideoSettings recommended, std::optional<InterfaceOrientation> interfaceOrientation,
                                SelvioFacialCaptureVideoQuality quality, int serviceLevel) {
    VideoSettings settings = std::move(recommended);
    if (interfaceOrientation) {
        const bool portrait = *interfaceOrientation == InterfaceOrientation::Portrait ||
                              *interfaceOrientation == InterfaceOrientation::PortraitUpsideDown;
        settings.width = portrait ? 720 : 1280;
        settings.height = portrait ? 1280 : 720;
    }
    settings.compressionProperties[kVideoAverageBitRateKey] = averageBitRate(quality, settings.codec, serviceLevel);
    return settings;
}

std::string recordingFileName(double secondsSinceReferenceDate) {
    using namespace std::chrono;
    constexpr seconds kReferenceDate(978307200);  // 2001-01-01T00:00:00Z since 1970
    // To microseconds first, which a double still resolves: 0.123 s must not become 122 ms.
    const microseconds sinceEpoch = kReferenceDate + microseconds(std::llround(secondsSinceReferenceDate * 1e6));
    const auto wholeSeconds = floor<seconds>(sinceEpoch);
    const auto milliseconds = floor<std::chrono::milliseconds>(sinceEpoch - wholeSeconds).count();
    const std::time_t time = wholeSeconds.count();
    std::tm local{};
    localtime_r(&time, &local);
    char text[80];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d_%02d-%02d-%02d-%03d", local.tm_year + 1900, local.tm_mon + 1,
                  local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(milliseconds));
    return std::string(kFilePrefix) + text + std::string(kFileSuffix);
}

bool isLeftoverRecording(std::string_view fileName) {
    return fileName.starts_with(kFilePrefix) && fileName.ends_with(kFileSuffix);
}

}  // namespace selvio::rules
