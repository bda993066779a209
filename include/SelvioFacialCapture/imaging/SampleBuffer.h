// One media sample on its way from a capture output: a video frame or a block of audio.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/imaging/PixelBuffer.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace selvio {

/// When a sample belongs, on the capture session's master clock. Absent times are invalid times.
struct SampleTiming {
    std::optional<std::chrono::nanoseconds> presentationTime;
    std::optional<std::chrono::nanoseconds> duration;

    [[nodiscard]] bool isValid() const { return presentationTime.has_value(); }
    friend bool operator==(const SampleTiming&, const SampleTiming&) = default;
};

/// What a video sample holds, in the terms of a capture format.
struct VideoFormatDescription {
    PixelFormat mediaSubType = 0;
    std::int32_t width = 0;   ///< pixels
    std::int32_t height = 0;  ///< pixels
    friend bool operator==(const VideoFormatDescription&, const VideoFormatDescription&) = default;
};

/// Interleaved 16-bit signed samples in native byte order.
struct AudioData {
    int sampleRate = 0;  ///< hertz
    int channels = 0;
    std::vector<std::int16_t> samples;
};

/// A sample and its timing. Immutable once made; hold the reference to keep it.
class SELVIO_EXPORT SampleBuffer {
public:
    /// A video sample over `imageBuffer`, which may be null (a sample without a picture, as in a drop notice).
    static std::shared_ptr<SampleBuffer> makeVideo(std::shared_ptr<PixelBuffer> imageBuffer, SampleTiming timing = {},
                                                   bool dataIsReady = true);
    static std::shared_ptr<SampleBuffer> makeAudio(AudioData audio, SampleTiming timing, bool dataIsReady = true);

    [[nodiscard]] const std::shared_ptr<PixelBuffer>& imageBuffer() const { return imageBuffer_; }
    /// Null for a video sample.
    [[nodiscard]] const AudioData* audio() const { return audio_ ? &*audio_ : nullptr; }
    [[nodiscard]] const SampleTiming& timing() const { return timing_; }
    [[nodiscard]] bool dataIsReady() const { return dataIsReady_; }
    /// Absent without a picture.
    [[nodiscard]] std::optional<VideoFormatDescription> formatDescription() const;

private:
    SampleBuffer() = default;

    std::shared_ptr<PixelBuffer> imageBuffer_;
    std::optional<AudioData> audio_;
    SampleTiming timing_;
    bool dataIsReady_ = true;
};

}  // namespace selvio
