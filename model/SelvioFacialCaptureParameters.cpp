#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>

#include <utility>

SelvioFacialCaptureParameters::SelvioFacialCaptureParameters()
    : cameraParameters_(std::make_shared<SelvioFacialCaptureCameraParameters>()) {}

std::int64_t SelvioFacialCaptureParameters::clampInteger(std::int64_t value, std::int64_t min, std::int64_t max) {
    if (value > max) return max;
    return value < min ? min : value;
}

void SelvioFacialCaptureParameters::setMode(std::int64_t value) {
    mutex_.set(mode_,
               value == SelvioFacialCaptureModeManual ? SelvioFacialCaptureModeManual : SelvioFacialCaptureModeAuto);
}

SelvioFacialCaptureMode SelvioFacialCaptureParameters::mode() const {
    const std::lock_guard lock(mutex_);
    return static_cast<SelvioFacialCaptureMode>(mode_);
}

// The two ranges lie exactly the distance apart, so one exchange of calls always settles.
void SelvioFacialCaptureParameters::storeMinFill(std::int64_t value) {
    minFill_ = clampInteger(value, 400, 800);
    if (maxFill_ - 100 < minFill_) storeMaxFill(minFill_ + 100);
}

void SelvioFacialCaptureParameters::storeMaxFill(std::int64_t value) {
    maxFill_ = clampInteger(value, 500, 900);
    if (minFill_ + 100 > maxFill_) storeMinFill(maxFill_ - 100);
}

void SelvioFacialCaptureParameters::setMinFill(std::int64_t value) {
    const std::lock_guard lock(mutex_);
    storeMinFill(value);
}

void SelvioFacialCaptureParameters::setMaxFill(std::int64_t value) {
    const std::lock_guard lock(mutex_);
    storeMaxFill(value);
}

bool SelvioFacialCaptureParameters::selectOnSmile() const {
    return mutex_.get(selectOnSmile_);
}

void SelvioFacialCaptureParameters::setSelectOnSmile(bool value) {
    mutex_.set(selectOnSmile_, value);
}

bool SelvioFacialCaptureParameters::highlightLandmarks() const {
    return mutex_.get(highlightLandmarks_);
}

void SelvioFacialCaptureParameters::setHighlightLandmarks(bool value) {
    mutex_.set(highlightLandmarks_, value);
}

std::int64_t SelvioFacialCaptureParameters::minFill() const {
    return mutex_.get(minFill_);
}

std::int64_t SelvioFacialCaptureParameters::maxFill() const {
    return mutex_.get(maxFill_);
}

std::int64_t SelvioFacialCaptureParameters::timeout() const {
    return mutex_.get(timeout_);
}

void SelvioFacialCaptureParameters::setTimeout(std::int64_t value) {
    mutex_.set(timeout_, clampInteger(value, 3, 30));
}

std::int64_t SelvioFacialCaptureParameters::roll() const {
    return mutex_.get(roll_);
}

void SelvioFacialCaptureParameters::setRoll(std::int64_t value) {
    mutex_.set(roll_, clampInteger(value, 0, 1000));
}

std::int64_t SelvioFacialCaptureParameters::pitch() const {
    return mutex_.get(pitch_);
}

void SelvioFacialCaptureParameters::setPitch(std::int64_t value) {
    mutex_.set(pitch_, clampInteger(value, 0, 1000));
}

std::int64_t SelvioFacialCaptureParameters::yaw() const {
    return mutex_.get(yaw_);
}

void SelvioFacialCaptureParameters::setYaw(std::int64_t value) {
    mutex_.set(yaw_, clampInteger(value, 0, 1000));
}

std::int64_t SelvioFacialCaptureParameters::imageQuality() const {
    return mutex_.get(imageQuality_);
}

void SelvioFacialCaptureParameters::setImageQuality(std::int64_t value) {
    mutex_.set(imageQuality_, clampInteger(value, 5, 100));
}

std::int64_t SelvioFacialCaptureParameters::countdownTime() const {
    return mutex_.get(countdownTime_);
}

void SelvioFacialCaptureParameters::setCountdownTime(std::int64_t value) {
    mutex_.set(countdownTime_, clampInteger(value, 0, 5));
}

std::shared_ptr<SelvioFacialCaptureCameraParameters> SelvioFacialCaptureParameters::cameraParameters() const {
    return mutex_.get(cameraParameters_);
}

void SelvioFacialCaptureParameters::setCameraParameters(
    std::shared_ptr<SelvioFacialCaptureCameraParameters> parameters) {
    mutex_.set(cameraParameters_, std::move(parameters));
}

std::map<std::string, std::string> SelvioFacialCaptureParameters::toDictionary() const {
    const std::lock_guard lock(mutex_);
    const auto flag = [](bool value) { return std::string(value ? "1" : "0"); };
    const auto* camera = cameraParameters_.get();
    return {
        {"Mode", std::to_string(mode_)},
        {"Timeout", std::to_string(timeout_)},
        {"MinFill", std::to_string(minFill_)},
        {"MaxFill", std::to_string(maxFill_)},
        {"Roll", std::to_string(roll_)},
        {"Pitch", std::to_string(pitch_)},
        {"Yaw", std::to_string(yaw_)},
        {"ImageQuality", std::to_string(imageQuality_)},
        {"SelectOnSmile", flag(selectOnSmile_)},
        {"CountdownTime", std::to_string(countdownTime_)},
        {"RecordVideo", flag(camera && camera->recordVideo())},
        {"RecordAudio", flag(camera && camera->recordAudio())},
        {"ShowRecordingUI", flag(camera && camera->showRecordingUI())},
        {"VideoQuality", std::to_string(camera ? camera->videoQuality() : 0)},
    };
}
