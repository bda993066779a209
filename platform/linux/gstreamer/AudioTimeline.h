// Where the next block of audio goes in a track without holes.
#pragma once

#include <chrono>
#include <cstdint>

namespace selvio {

/// What to do with a block: first this much silence, then the block without its first frames. One frame is one sample
/// of every channel.
struct AudioPlacement {
    std::int64_t silence = 0;  ///< frames of silence to write first
    std::int64_t skip = 0;     ///< frames of the block to leave out
    friend bool operator==(const AudioPlacement&, const AudioPlacement&) = default;
};

/// Blocks this close to their place join seamlessly: clocks jitter, and a correction would be heard.
inline constexpr std::chrono::milliseconds kAudioTolerance{10};

/// The frame in which `time` lies, rounded to the nearest.
[[nodiscard]] std::int64_t audioFrameAt(std::chrono::nanoseconds time, int sampleRate);

/// Places a block of `frames` whose first frame belongs at `time` (from the track's start, may be negative) in a track
/// of `written` frames.
[[nodiscard]] AudioPlacement placeAudio(std::int64_t written, std::chrono::nanoseconds time, std::int64_t frames,
                                        int sampleRate);

}  // namespace selvio
