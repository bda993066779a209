#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>

#include <utility>

SelvioFacialCaptureParameters::SelvioFacialCaptureParameters() : cameraParameters_(std::make_shared<SelvioFacialCaptureCameraParameters>()) {
    setMode(2);
    setTimeout(20);
    setMinFill(550);  // lifts maxFill to 650, so that the next line leaves minFill alone
    setMaxFill(725);
    setRoll(500);
    setPitch(500);
    setYaw(500);
    setImageQuality(95);
    setHighlightLandmarks(false);
    setSelectOnSmile(false);
    setCountdownTime(2);
}

std::int64_t SelvioFacialCaptureParameters::clampInteger(std::int64_t value, std::int64_t min, std::int64_t max) {
    if (value > max) return max;
    return value < min ? min : value;
}

void SelvioFacialCaptureParameters::setMode(std::int64_t value) {
    const std::lock_guard lock(mutex_);
    mode_ = value == SelvioFacialCaptureModeManual ? SelvioFacialCaptureModeManual : SelvioFacialCaptureModeAuto;
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
    const std::lock_guard lock(mutex_);
    return selectOnSmile_;
}

void SelvioFacialCaptureParameters::setSelectOnSmile(bool value) {
    const std::lock_guard lock(mutex_);
    selectOnSmile_ = value;
}

bool SelvioFacialCaptureParameters::highlightLandmarks() const {
    const std::lock_guard lock(mutex_);
    return highlightLandmarks_;
}

void SelvioFacialCaptureParameters::setHighlightLandmarks(bool value) {
    const std::lock_guard lock(mutex_);
    highlightLandmarks_ = value;
}

std::int64_t SelvioFacialCaptureParameters::minFill() const {
    const std::lock_guard lock(mutex_);
    return minFill_;
}

std::int64_t SelvioFacialCaptureParameters::maxFill() const {
    const std::lock_guard lock(mutex_);
    return maxFill_;
}

std::int64_t SelvioFacialCaptureParameters::timeout() const {
    const std::lock_guard lock(mutex_);
    return timeout_;
}

void SelvioFacialCaptureParameters::setTimeout(std::int64_t value) {
    const std::lock_guard lock(mutex_);
    timeout_ = clampInteger(value, 3, 30);
}

std::int64_t SelvioFacialCaptureParameters::roll() const {
    const std::lock_guard lock(mutex_);
    return roll_;
}

void SelvioFacialCaptureParameters::setRoll(std::int64_t value) {
    const std::lock_guard lock(mutex_);
    roll_ = clampInteger(value, 0, 1000);
}

std::int64_t SelvioFacialCaptureParameters::pitch() const {
    const std::lock_guard lock(mutex_);
    return pitch_;
}

void SelvioFacialCaptureParameters::setPitch(std::int64_t value) {
    const std::lock_guard lock(mutex_);
    pitch_ = clampInteger(value, 0, 1000);
}

std::int64_t SelvioFacialCaptureParameters::yaw() const {
    const std::lock_guard lock(mutex_);
    return yaw_;
}

void SelvioFacialCaptureParameters::setYaw(std::int64_t value) {
    const std::lock_guard lock(mutex_);
    yaw_ = clampInteger(value, 0, 1000);
}

std::int64_t SelvioFacialCaptureParameters::imageQuality() const {
    const std::lock_guard lock(mutex_);
    return imageQuality_;
}

void SelvioFacialCaptureParameters::setImageQuality(std::int64_t value) {
    const std::lock_guard lock(mutex_);
    imageQuality_ = clampInteger(value, 5, 100);
}

std::int64_t SelvioFacialCaptureParameters::countdownTime() const {
    const std::lock_guard lock(mutex_);
    return countdownTime_;
}

void SelvioFacialCaptureParameters::setCountdownTime(std::int64_t value) {
    const std::lock_guard lock(mutex_);
    countdownTime_ = clampInteger(value, 0, 5);
}

std::shared_ptr<SelvioFacialCaptureCameraParameters> SelvioFacialCaptureParameters::cameraParameters() const {
    const std::lock_guard lock(mutex_);
    return cameraParameters_;
}

void SelvioFacialCaptureParameters::setCameraParameters(std::shared_ptr<SelvioFacialCaptureCameraParameters> parameters) {
    const std::lock_guard lock(mutex_);
    std::swap(cameraParameters_, parameters);
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
        {"RecordVideo", flag(camera != nullptr && camera->recordVideo())},
        {"RecordAudio", flag(camera != nullptr && camera->recordAudio())},
        {"ShowRecordingUI", flag(camera != nullptr && camera->showRecordingUI())},
        {"VideoQuality", std::to_string(camera != nullptr ? camera->videoQuality() : 0)},
    };
}
