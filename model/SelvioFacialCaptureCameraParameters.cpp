#include <SelvioFacialCapture/SelvioFacialCaptureCameraParameters.h>

#include <SelvioFacialCapture/SelvioFacialCaptureParameters.h>

#include <array>
#include <nlohmann/json.hpp>

namespace {

constexpr std::array kArchiveKeys = {"RecordVideo", "RecordAudio", "ShowRecordingUI", "VideoQuality"};

bool decodeBool(const nlohmann::json& archive, const char* key) {
    const auto member = archive.find(key);
    return member != archive.end() && member->is_boolean() && member->get<bool>();
}

std::int64_t decodeInteger(const nlohmann::json& archive, const char* key) {
    const auto member = archive.find(key);
    if (member == archive.end() || !member->is_number_integer()) return 0;
    // An unsigned value past the signed range would turn negative; it is simply very large.
    if (member->is_number_unsigned() && member->get<std::uint64_t>() > INT64_MAX) return INT64_MAX;
    return member->get<std::int64_t>();
}

}  // namespace

bool SelvioFacialCaptureCameraParameters::recordVideo() const {
    return mutex_.get(recordVideo_);
}

void SelvioFacialCaptureCameraParameters::setRecordVideo(bool value) {
    mutex_.set(recordVideo_, value);
}

bool SelvioFacialCaptureCameraParameters::recordAudio() const {
    return mutex_.get(recordAudio_);
}

void SelvioFacialCaptureCameraParameters::setRecordAudio(bool value) {
    mutex_.set(recordAudio_, value);
}

bool SelvioFacialCaptureCameraParameters::showRecordingUI() const {
    return mutex_.get(showRecordingUI_);
}

void SelvioFacialCaptureCameraParameters::setShowRecordingUI(bool value) {
    mutex_.set(showRecordingUI_, value);
}

SelvioFacialCaptureVideoQuality SelvioFacialCaptureCameraParameters::videoQuality() const {
    return mutex_.get(videoQuality_);
}

void SelvioFacialCaptureCameraParameters::setVideoQuality(SelvioFacialCaptureVideoQuality value) {
    mutex_.set(videoQuality_, SelvioFacialCaptureParameters::clampInteger(value, 10, 100));
}

std::optional<std::string> SelvioFacialCaptureCameraParameters::stringFrom(std::int64_t index) {
    if (index < 0 || index >= static_cast<std::int64_t>(kArchiveKeys.size())) return std::nullopt;
    return kArchiveKeys[static_cast<std::size_t>(index)];
}

std::string SelvioFacialCaptureCameraParameters::encodeWithCoder() const {
    const std::lock_guard lock(mutex_);
    nlohmann::ordered_json archive;
    archive[kArchiveKeys[0]] = recordVideo_;
    archive[kArchiveKeys[1]] = recordAudio_;
    archive[kArchiveKeys[2]] = showRecordingUI_;
    archive[kArchiveKeys[3]] = videoQuality_;
    return archive.dump();
}

std::shared_ptr<SelvioFacialCaptureCameraParameters> SelvioFacialCaptureCameraParameters::initWithCoder(
    std::string_view text) {
    nlohmann::json archive = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!archive.is_object()) archive = nlohmann::json::object();
    auto parameters = std::make_shared<SelvioFacialCaptureCameraParameters>();
    parameters->setRecordVideo(decodeBool(archive, kArchiveKeys[0]));
    parameters->setRecordAudio(decodeBool(archive, kArchiveKeys[1]));
    parameters->setShowRecordingUI(decodeBool(archive, kArchiveKeys[2]));
    parameters->setVideoQuality(decodeInteger(archive, kArchiveKeys[3]));
    return parameters;
}
