#include "platform/linux/gstreamer/CaptureRules.h"

#include <algorithm>
#include <cmath>
#include <tuple>
#include <utility>

namespace selvio::rules {
namespace {

constexpr double kWantedRate = 30.0;
constexpr double kRateSlack = 0.5;  // 29.97 is 30
constexpr double kHighestRate = 1000.0;

bool isFullRate(const FrameRate& rate) {
    return rate.numerator == 0 || rate.value() >= kWantedRate - kRateSlack;
}

bool matchesFormat(const CameraMode& mode, PixelFormat format) {
    return !mode.jpeg && mode.format == (format == kPixelFormat420v ? "NV12" : "BGRA");
}

int evenBelow(int n) {
    return n & ~1;
}

}  // namespace

void addMode(std::vector<CameraMode>& modes, CameraMode mode) {
    if (std::find(modes.begin(), modes.end(), mode) == modes.end()) modes.push_back(std::move(mode));
}

std::vector<FrameRate> ratesBetween(FrameRate lowest, FrameRate highest) {
    std::vector<FrameRate> rates{highest};
    if (lowest.value() <= kWantedRate && highest.value() >= kWantedRate)
        rates.push_back({static_cast<int>(kWantedRate), 1});
    return rates;
}

FrameRate preferredRate(const std::vector<FrameRate>& rates) {
    const auto merit = [](const FrameRate& rate) {
        const bool fast = rate.value() >= kWantedRate - kRateSlack;
        return std::pair(fast, fast ? -rate.value() : rate.value());
    };
    FrameRate best{0, 1};
    for (const FrameRate& rate : rates) {
        if (rate.numerator <= 0 || rate.value() <= 0.0 || rate.value() > kHighestRate) continue;
        if (merit(rate) > merit(best)) best = rate;
    }
    return best;
}

std::vector<CaptureDeviceFormat> formatsOf(const std::vector<CameraMode>& modes) {
    std::vector<CaptureDeviceFormat> formats;
    for (const CameraMode& mode : modes) {
        for (const PixelFormat pixelFormat : {kPixelFormat420v, kPixelFormat32BGRA}) {
            const VideoFormatDescription description{pixelFormat, mode.width, mode.height};
            const auto known = std::ranges::find(formats, description, &CaptureDeviceFormat::formatDescription);
            if (known == formats.end()) {
                formats.push_back({description, mode.rate.value()});
            } else {
                known->maxFrameRate = std::max(known->maxFrameRate, mode.rate.value());
            }
        }
    }
    return formats;
}

const CameraMode* chooseMode(const std::vector<CameraMode>& modes, int width, int height, PixelFormat format) {
    const CameraMode* best = nullptr;
    const auto merit = [&](const CameraMode& mode) {
        return std::tuple(isFullRate(mode.rate) ? kWantedRate : mode.rate.value(), matchesFormat(mode, format),
                          !mode.jpeg);
    };
    for (const CameraMode& mode : modes) {
        if (mode.width != width || mode.height != height) continue;
        if (!best || merit(mode) > merit(*best)) best = &mode;
    }
    return best;
}

std::optional<CaptureDeviceFormat> formatForPreset(const std::vector<CaptureDeviceFormat>& formats,
                                                   const std::string& preset) {
    const auto longer = [](const CaptureDeviceFormat& f) {
        return std::max(f.formatDescription.width, f.formatDescription.height);
    };
    const auto area = [](const CaptureDeviceFormat& f) {
        return static_cast<std::int64_t>(f.formatDescription.width) * f.formatDescription.height;
    };
    if (const auto size = sizeOfPreset(preset)) {
        const auto found = std::ranges::find_if(formats, [&](const CaptureDeviceFormat& f) {
            return longer(f) == size->width &&
                   f.formatDescription.width + f.formatDescription.height == size->width + size->height;
        });
        return found == formats.end() ? std::nullopt : std::optional(*found);
    }
    if (preset != kCaptureSessionPresetHigh || formats.empty()) return std::nullopt;
    // The first of the largest that are not too large, or else of the smallest.
    const auto merit = [&](const CaptureDeviceFormat& f) { return longer(f) <= 1920 ? area(f) : -area(f); };
    return *std::ranges::max_element(formats, {}, merit);
}

std::optional<CaptureDeviceFormat> initialFormat(const std::vector<CaptureDeviceFormat>& formats) {
    const auto usual = formatForPreset(formats, kCaptureSessionPreset1280x720);
    return usual ? usual : formatForPreset(formats, kCaptureSessionPresetHigh);
}

FrameCrop cropFor(int width, int height, VideoOrientation orientation) {
    const bool wantsPortrait = isPortrait(orientation);
    if (wantsPortrait == (height > width)) return {0, 0, width, height};
    FrameCrop crop{0, 0, evenBelow(width), evenBelow(height)};
    if (wantsPortrait) {
        crop.width = std::min(evenBelow(crop.height * 9 / 16), crop.width);
        crop.x = evenBelow((width - crop.width) / 2);
    } else {
        crop.height = std::min(evenBelow(crop.width * 9 / 16), crop.height);
        crop.y = evenBelow((height - crop.height) / 2);
    }
    return crop;
}

int positionMatch(CaptureDevicePosition actual, CaptureDevicePosition wanted) {
    if (actual == wanted || wanted == CaptureDevicePosition::Unspecified) return 2;
    return actual == CaptureDevicePosition::Unspecified ? 1 : 0;
}

std::chrono::nanoseconds Wait::look(std::chrono::nanoseconds now, std::chrono::nanoseconds last) {
    if (now - std::exchange(looked_, now) > 2 * interval_) begin_ = now;
    return now - std::max(begin_, last);
}

std::chrono::nanoseconds AudioClock::place(std::chrono::nanoseconds time, std::int64_t frames, int sampleRate) {
    using std::chrono::nanoseconds;
    constexpr nanoseconds kBreak = std::chrono::milliseconds(100);  // beyond this samples were lost
    constexpr int kPull = 32;  // a constant offset has gone after about that many blocks
    nanoseconds placed = time;
    if (next_ && std::chrono::abs(time - *next_) < kBreak) placed = *next_ + (time - *next_) / kPull;
    next_ = placed + nanoseconds(frames * 1'000'000'000 / std::max(sampleRate, 1));
    return placed;
}

std::int64_t audioFrameAt(std::chrono::nanoseconds time, int sampleRate) {
    constexpr std::int64_t kSecond = 1'000'000'000;
    const std::int64_t seconds = time.count() / kSecond;
    const std::int64_t rest = time.count() % kSecond;
    return seconds * sampleRate + (rest * sampleRate + (rest < 0 ? -kSecond / 2 : kSecond / 2)) / kSecond;
}

AudioPlacement placeAudio(std::int64_t written, std::chrono::nanoseconds time, std::int64_t frames, int sampleRate) {
    const std::int64_t offset = audioFrameAt(time, sampleRate) - written;
    const std::int64_t tolerance = audioFrameAt(kAudioTolerance, sampleRate);
    // Before the start of the track there is no jitter to allow for: what lies there is left out exactly.
    if (written > 0 && offset >= -tolerance && offset <= tolerance) return {};
    return {.silence = std::max<std::int64_t>(offset, 0), .skip = std::clamp<std::int64_t>(-offset, 0, frames)};
}

}  // namespace selvio::rules
