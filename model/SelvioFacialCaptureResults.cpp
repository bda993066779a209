#include <SelvioFacialCapture/SelvioFacialCaptureResults.h>

#include <array>

namespace {

constexpr std::array kLocalizationKeys = {
    "selvio_facial_capture_status_none",
    "selvio_facial_capture_status_face_not_found",
    "selvio_facial_capture_status_more_than_one_face",
    "selvio_facial_capture_status_face_roll",
    "selvio_facial_capture_status_face_pitch",
    "selvio_facial_capture_status_face_yaw",
    "selvio_facial_capture_status_move_closer",
    "selvio_facial_capture_status_too_close",
    "selvio_facial_capture_status_not_centered",
    "selvio_facial_capture_status_hold_still",
    "selvio_facial_capture_status_countdown",
    "selvio_facial_capture_status_too_dark",
    "selvio_facial_capture_status_non_uniform_light",
    "selvio_facial_capture_status_stop_smiling",
    "selvio_facial_capture_status_good_frame",
};
constexpr std::array kResultWords = {"None", "SuccessStillCamera", "SuccessVideo", "Cancelled"};

// The entry at the enumeration's value, or nothing outside the table.
template <std::size_t N>
std::optional<std::string> entry(const std::array<const char*, N>& table, std::int64_t value) {
    if (value < 0 || value >= static_cast<std::int64_t>(N)) return std::nullopt;
    return table[static_cast<std::size_t>(value)];
}

}  // namespace

std::optional<std::string> SelvioFacialCaptureResults::localizeKeyFrom(SelvioFacialCaptureStatus status) {
    return entry(kLocalizationKeys, status);
}

std::optional<std::string> SelvioFacialCaptureResults::stringFrom(SelvioFacialCaptureResultCode resultCode) {
    return entry(kResultWords, resultCode);
}

void SelvioFacialCaptureResults::setOrderedStatuses(Statuses statuses) {
    const std::lock_guard lock(mutex_);
    orderedStatuses_ = std::move(statuses);
    if (orderedStatuses_ && !orderedStatuses_->empty()) highestPriorityStatus_ = orderedStatuses_->front();
}

std::shared_ptr<SelvioFacialCaptureResults> SelvioFacialCaptureResults::withoutSelection() const {
    auto copy = std::make_shared<SelvioFacialCaptureResults>();
    const std::lock_guard lock(mutex_);
    copy->highestPriorityStatus_ = highestPriorityStatus_;
    copy->orderedStatuses_ = orderedStatuses_;
    copy->faceContourPoints_ = faceContourPoints_;
    copy->noseCrestPoints_ = noseCrestPoints_;
    copy->nosePoints_ = nosePoints_;
    copy->leftEyePoints_ = leftEyePoints_;
    copy->rightEyePoints_ = rightEyePoints_;
    copy->innerLipsPoints_ = innerLipsPoints_;
    copy->outerLipsPoints_ = outerLipsPoints_;
    copy->faceRect_ = faceRect_;
    return copy;
}

SelvioFacialCaptureStatus SelvioFacialCaptureResults::highestPriorityStatus() const {
    return mutex_.get(highestPriorityStatus_);
}
void SelvioFacialCaptureResults::setHighestPriorityStatus(SelvioFacialCaptureStatus status) {
    mutex_.set(highestPriorityStatus_, status);
}
SelvioFacialCaptureResults::Statuses SelvioFacialCaptureResults::orderedStatuses() const {
    return mutex_.get(orderedStatuses_);
}
SelvioFacialCaptureResults::Points SelvioFacialCaptureResults::faceContourPoints() const {
    return mutex_.get(faceContourPoints_);
}
void SelvioFacialCaptureResults::setFaceContourPoints(Points points) {
    mutex_.set(faceContourPoints_, std::move(points));
}
SelvioFacialCaptureResults::Points SelvioFacialCaptureResults::noseCrestPoints() const {
    return mutex_.get(noseCrestPoints_);
}
void SelvioFacialCaptureResults::setNoseCrestPoints(Points points) {
    mutex_.set(noseCrestPoints_, std::move(points));
}
SelvioFacialCaptureResults::Points SelvioFacialCaptureResults::nosePoints() const {
    return mutex_.get(nosePoints_);
}
void SelvioFacialCaptureResults::setNosePoints(Points points) {
    mutex_.set(nosePoints_, std::move(points));
}
SelvioFacialCaptureResults::Points SelvioFacialCaptureResults::leftEyePoints() const {
    return mutex_.get(leftEyePoints_);
}
void SelvioFacialCaptureResults::setLeftEyePoints(Points points) {
    mutex_.set(leftEyePoints_, std::move(points));
}
SelvioFacialCaptureResults::Points SelvioFacialCaptureResults::rightEyePoints() const {
    return mutex_.get(rightEyePoints_);
}
void SelvioFacialCaptureResults::setRightEyePoints(Points points) {
    mutex_.set(rightEyePoints_, std::move(points));
}
SelvioFacialCaptureResults::Points SelvioFacialCaptureResults::innerLipsPoints() const {
    return mutex_.get(innerLipsPoints_);
}
void SelvioFacialCaptureResults::setInnerLipsPoints(Points points) {
    mutex_.set(innerLipsPoints_, std::move(points));
}
SelvioFacialCaptureResults::Points SelvioFacialCaptureResults::outerLipsPoints() const {
    return mutex_.get(outerLipsPoints_);
}
void SelvioFacialCaptureResults::setOuterLipsPoints(Points points) {
    mutex_.set(outerLipsPoints_, std::move(points));
}
std::optional<selvio::Image> SelvioFacialCaptureResults::selectedImage() const {
    return mutex_.get(selectedImage_);
}
void SelvioFacialCaptureResults::setSelectedImage(std::optional<selvio::Image> image) {
    mutex_.set(selectedImage_, std::move(image));
}
std::optional<std::string> SelvioFacialCaptureResults::encodedSelectedImage() const {
    return mutex_.get(encodedSelectedImage_);
}
void SelvioFacialCaptureResults::setEncodedSelectedImage(std::optional<std::string> base64) {
    mutex_.set(encodedSelectedImage_, std::move(base64));
}
std::optional<std::string> SelvioFacialCaptureResults::obixDataString() const {
    return mutex_.get(obixDataString_);
}
void SelvioFacialCaptureResults::setObixDataString(std::optional<std::string> json) {
    mutex_.set(obixDataString_, std::move(json));
}
SelvioFacialCaptureResultCode SelvioFacialCaptureResults::resultCode() const {
    return mutex_.get(resultCode_);
}
void SelvioFacialCaptureResults::setResultCode(SelvioFacialCaptureResultCode code) {
    mutex_.set(resultCode_, code);
}
selvio::Rect SelvioFacialCaptureResults::faceRect() const {
    return mutex_.get(faceRect_);
}
void SelvioFacialCaptureResults::setFaceRect(selvio::Rect rect) {
    mutex_.set(faceRect_, rect);
}
