// The host's settings for a capture.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureCameraParameters.h>
#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/base/MemberMutex.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

/// Who takes the picture.
enum SelvioFacialCaptureMode : std::int64_t {
    SelvioFacialCaptureModeManual = 1,  ///< the user, through the host
    SelvioFacialCaptureModeAuto = 2,    ///< the analyzer
};

/// Everything about a capture that a host may change. Every operation may be called on any thread; a change takes
/// effect with the next frame. Setters never refuse a value: numbers are clamped, and the two fill bounds keep a
/// distance of at least 100.
class SELVIO_EXPORT SelvioFacialCaptureParameters {
public:
    /// mode automatic, timeout 20, fill 550...725, roll, pitch and yaw 500, imageQuality 95, no landmarks highlighted,
    /// no smile, countdown 2.
    SelvioFacialCaptureParameters();
    SelvioFacialCaptureParameters(const SelvioFacialCaptureParameters&) = delete;
    SelvioFacialCaptureParameters& operator=(const SelvioFacialCaptureParameters&) = delete;

    /// `max` if the value is greater; else `min` if it is less; else the value.
    [[nodiscard]] static std::int64_t clampInteger(std::int64_t value, std::int64_t min, std::int64_t max);

    /// Select the frame when the user smiles.
    [[nodiscard]] bool selectOnSmile() const;
    void setSelectOnSmile(bool value);
    /// Whether the host draws the detected landmarks. The component stores this only.
    [[nodiscard]] bool highlightLandmarks() const;
    void setHighlightLandmarks(bool value);
    [[nodiscard]] SelvioFacialCaptureMode mode() const;
    /// Any value but 1 and 2 becomes 2.
    void setMode(std::int64_t value);
    /// Seconds, 3...30. Enforced by the host; the component only records it.
    [[nodiscard]] std::int64_t timeout() const;
    void setTimeout(std::int64_t value);
    /// Smallest accepted width of the face in thousandths of the screen's width, 400...800. Setting it lifts `maxFill`
    /// to at least 100 more.
    [[nodiscard]] std::int64_t minFill() const;
    void setMinFill(std::int64_t value);
    /// Largest accepted width of the face in thousandths of the screen's width, 500...900. Setting it lowers `minFill`
    /// to at least 100 less.
    [[nodiscard]] std::int64_t maxFill() const;
    void setMaxFill(std::int64_t value);
    /// Strictness of the head-angle checks, 0...1000; 500 is neutral, more is stricter.
    [[nodiscard]] std::int64_t roll() const;
    void setRoll(std::int64_t value);
    [[nodiscard]] std::int64_t pitch() const;
    void setPitch(std::int64_t value);
    [[nodiscard]] std::int64_t yaw() const;
    void setYaw(std::int64_t value);
    /// JPEG quality of the delivered picture in percent, 5...100.
    [[nodiscard]] std::int64_t imageQuality() const;
    void setImageQuality(std::int64_t value);
    /// Length in seconds of the countdown that the host shows, 0...5; with 0 or 1 a good frame is selected without a
    /// countdown.
    [[nodiscard]] std::int64_t countdownTime() const;
    void setCountdownTime(std::int64_t value);
    /// Recording settings, for the data record only; null only if the host set null. The camera has an object of its
    /// own until the host gives it this one: `camera->setParameters(parameters->cameraParameters())`.
    [[nodiscard]] std::shared_ptr<SelvioFacialCaptureCameraParameters> cameraParameters() const;
    void setCameraParameters(std::shared_ptr<SelvioFacialCaptureCameraParameters> parameters);

    /// Both objects' settings as text: the fourteen members of "Parameters" in the data record. Booleans are "0" or
    /// "1"; without camera parameters their four members read as "0".
    [[nodiscard]] std::map<std::string, std::string> toDictionary() const;

private:
    void storeMinFill(std::int64_t value);
    void storeMaxFill(std::int64_t value);

    mutable selvio::MemberMutex mutex_;  // guards every member below
    bool selectOnSmile_ = false;
    bool highlightLandmarks_ = false;
    std::int64_t mode_ = SelvioFacialCaptureModeAuto;
    std::int64_t timeout_ = 20;
    std::int64_t minFill_ = 550;
    std::int64_t maxFill_ = 725;
    std::int64_t roll_ = 500;
    std::int64_t pitch_ = 500;
    std::int64_t yaw_ = 500;
    std::int64_t imageQuality_ = 95;
    std::int64_t countdownTime_ = 2;
    std::shared_ptr<SelvioFacialCaptureCameraParameters> cameraParameters_;
};
