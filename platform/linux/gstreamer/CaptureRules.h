// What capture decides: camera modes, presets, cropping, waits, audio times. No GStreamer here.
#pragma once

#include "platform/capture/FrameSize.h"

#include <SelvioFacialCapture/platform/Capture.h>

#include <string>
#include <vector>

namespace selvio::rules {

/// Frames a second as a fraction.
struct FrameRate {
    int numerator = 0;
    int denominator = 1;
    [[nodiscard]] double value() const { return denominator > 0 ? static_cast<double>(numerator) / denominator : 0.0; }
    friend bool operator==(const FrameRate&, const FrameRate&) = default;
};

/// One kind of frames that a camera sends.
struct CameraMode {
    bool jpeg = false;     ///< Motion JPEG; else raw
    std::string format{};  ///< GStreamer's name of a raw format
    int width = 0;         ///< pixels
    int height = 0;        ///< pixels
    FrameRate rate{};      ///< the one to ask for; 0: whatever comes
    friend bool operator==(const CameraMode&, const CameraMode&) = default;
};

/// Adds a mode that is not there yet.
void addMode(std::vector<CameraMode>& modes, CameraMode mode);

/// The rates worth asking for in a range: the highest, and 30 if it lies within.
[[nodiscard]] std::vector<FrameRate> ratesBetween(FrameRate lowest, FrameRate highest);

/// The rate to ask for among those that a camera has at one size: 30 if it is there, else the nearest above, else the
/// highest. Rates that are not above 0 or are above 1000 are no rates (a still camera says 0, a loopback device the
/// largest number there is). Nothing: {0, 1}.
[[nodiscard]] FrameRate preferredRate(const std::vector<FrameRate>& rates);

/// Each size of the modes, in their order, as 420v and as BGRA, with the highest rate of that size.
[[nodiscard]] std::vector<CaptureDeviceFormat> formatsOf(const std::vector<CameraMode>& modes);

/// The mode to open for frames of this size in this pixel format: close to 30 frames a second before slow ones, then
/// without conversion, then raw. Null if no mode has the size.
[[nodiscard]] const CameraMode* chooseMode(const std::vector<CameraMode>& modes, int width, int height,
                                           PixelFormat format);

/// The format that a preset stands for: the first of its size, upright or not; for "High" the largest whose longer side
/// is at most 1920, or else the smallest of all. Nothing if there is none, or the preset is not known.
[[nodiscard]] std::optional<CaptureDeviceFormat> formatForPreset(const std::vector<CaptureDeviceFormat>& formats,
                                                                 const std::string& preset);

/// The format of a camera on which nothing was set: 1280x720, else "High".
[[nodiscard]] std::optional<CaptureDeviceFormat> initialFormat(const std::vector<CaptureDeviceFormat>& formats);

/// The part of a sensor's picture that a connection of this orientation delivers. Sides and places are even.
[[nodiscard]] FrameCrop cropFor(int width, int height, VideoOrientation orientation);

/// Whether a camera at `actual` is an answer to a search at `wanted`: 0 no, 1 it states no position, 2 yes.
[[nodiscard]] int positionMatch(CaptureDevicePosition actual, CaptureDevicePosition wanted);

/// Measures a wait by looking at regular intervals. A look that comes twice as late as it should tells that the process
/// was stopped, from its terminal or with its container, and what it waits for with it: the wait begins anew.
class Wait {
public:
    Wait(std::chrono::nanoseconds start, std::chrono::nanoseconds interval)
        : interval_(interval), looked_(start), begin_(start) {}
    /// How long the wait has lasted; `last`: when what is waited for came last.
    [[nodiscard]] std::chrono::nanoseconds look(std::chrono::nanoseconds now,
                                                std::chrono::nanoseconds last = std::chrono::nanoseconds::min());

private:
    std::chrono::nanoseconds interval_;
    std::chrono::nanoseconds looked_;
    std::chrono::nanoseconds begin_;
};

/// Evens out the times of audio blocks, which arrive when the scheduler lets them: the samples themselves are the
/// better clock.
class AudioClock {
public:
    /// The time of a block of `frames` that came at `time`.
    std::chrono::nanoseconds place(std::chrono::nanoseconds time, std::int64_t frames, int sampleRate);

private:
    std::optional<std::chrono::nanoseconds> next_;
};

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

}  // namespace selvio::rules
