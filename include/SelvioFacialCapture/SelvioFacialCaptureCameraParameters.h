// The host's settings for the recording.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/base/MemberMutex.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

/// 10 (smallest file) to 100 (best picture).
using SelvioFacialCaptureVideoQuality = std::int64_t;

/// Recording settings. Every operation may be called on any thread. Setters never refuse a value: they clamp.
class SELVIO_EXPORT SelvioFacialCaptureCameraParameters {
public:
    /// recordVideo false, recordAudio false, showRecordingUI true, videoQuality 10.
    SelvioFacialCaptureCameraParameters() = default;
    SelvioFacialCaptureCameraParameters(const SelvioFacialCaptureCameraParameters&) = delete;
    SelvioFacialCaptureCameraParameters& operator=(const SelvioFacialCaptureCameraParameters&) = delete;

    [[nodiscard]] bool recordVideo() const;
    void setRecordVideo(bool value);
    [[nodiscard]] bool recordAudio() const;
    void setRecordAudio(bool value);
    [[nodiscard]] bool showRecordingUI() const;
    void setShowRecordingUI(bool value);
    [[nodiscard]] SelvioFacialCaptureVideoQuality videoQuality() const;
    /// Clamps into 10...100.
    void setVideoQuality(SelvioFacialCaptureVideoQuality value);

    /// The archive keys: 0 "RecordVideo", 1 "RecordAudio", 2 "ShowRecordingUI", 3 "VideoQuality"; nothing for any other
    /// index.
    [[nodiscard]] static std::optional<std::string> stringFrom(std::int64_t index);

    /// The keyed archive: one JSON object with the four keys, three booleans and an integer.
    [[nodiscard]] std::string encodeWithCoder() const;
    /// Reads a keyed archive. A key that is missing or holds another type reads as false or 0 (0 is then clamped, so
    /// videoQuality becomes 10); text that is not a JSON object reads as an archive without keys. Unknown keys are
    /// ignored. Note that `showRecordingUI` is false without its key.
    [[nodiscard]] static std::shared_ptr<SelvioFacialCaptureCameraParameters> initWithCoder(std::string_view archive);

private:
    mutable selvio::MemberMutex mutex_;  // guards every member below
    bool recordVideo_ = false;
    bool recordAudio_ = false;
    bool showRecordingUI_ = true;
    SelvioFacialCaptureVideoQuality videoQuality_ = 10;
};
