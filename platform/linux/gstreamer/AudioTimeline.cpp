#include "AudioTimeline.h"

#include <algorithm>

namespace selvio {

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

}  // namespace selvio
