#include <SelvioFacialCapture/SelvioFacialCaptureObixData.h>
#include <SelvioFacialCapture/SelvioFacialCaptureVersion.h>
#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/imaging/Base64.h>

#include <nlohmann/json.hpp>
#include <utility>

extern "C" {
const char* const kObixObixVersion = "ObixVersion";
const char* const kSelvioPlatfrom = "Platform";
const char* const kSelvioOS = "OS";
const char* const kSelvioDevice = "Device";
const char* const kSelvioModel = "Model";
const char* const kSelvioManufacturer = "Manufacturer";
const char* const kSelvioParameters = "Parameters";
const char* const kSelvioUxp = "UXP";
const char* const kSelvioSdkVersion = "SDKVersion";
}

namespace {

std::optional<std::string> serialized(const nlohmann::json& record) {
    try {
        constexpr int kOneLine = -1;
        constexpr bool kAsciiOnly = true;  // as the user comment needs it
        return record.dump(kOneLine, ' ', kAsciiOnly);
    } catch (const nlohmann::json::exception&) {  // a text that is not UTF-8
        return std::nullopt;
    }
}

}  // namespace

std::shared_ptr<SelvioFacialCaptureObixData> SelvioFacialCaptureObixData::init(const selvio::Platform& platform) {
    std::shared_ptr<SelvioFacialCaptureObixData> record(new SelvioFacialCaptureObixData(platform));
    record->addInitialElements();
    return record;
}

SelvioFacialCaptureObixData::SelvioFacialCaptureObixData(const selvio::Platform& platform)
    : device_(platform.device),
      codec_(platform.imageCodec),
      dictionary_(std::make_unique<nlohmann::json>(nlohmann::json::object())) {}

SelvioFacialCaptureObixData::~SelvioFacialCaptureObixData() = default;

std::string SelvioFacialCaptureObixData::obixVersion() {
    return "1.6";
}

void SelvioFacialCaptureObixData::addInitialElements() {
    add({{kObixObixVersion, obixVersion()},
         {kSelvioPlatfrom, "iOS"},
         {kSelvioOS, device_ ? device_->systemVersion() : ""},
         {kSelvioDevice, device_ ? device_->model() : ""},
         {kSelvioModel, getMachineName()},
         {kSelvioManufacturer, "Apple"},
         {kSelvioSdkVersion, "Facial Capture " + SelvioFacialCapture::version()}});
}

void SelvioFacialCaptureObixData::add(const nlohmann::json& dictionary) {
    if (!dictionary.is_object()) return;
    const std::lock_guard lock(mutex_);
    dictionary_->update(dictionary);
}

void SelvioFacialCaptureObixData::addParameters(const nlohmann::json& dictionary) {
    const std::lock_guard lock(mutex_);
    if (!dictionary_->contains(kSelvioParameters)) (*dictionary_)[kSelvioParameters] = dictionary;
}

void SelvioFacialCaptureObixData::addUXP(const nlohmann::json& events) {
    const std::lock_guard lock(mutex_);
    (*dictionary_)[kSelvioUxp] = events;
}

nlohmann::json SelvioFacialCaptureObixData::obixDataDictionary() const {
    const std::lock_guard lock(mutex_);
    return *dictionary_;
}

std::optional<std::string> SelvioFacialCaptureObixData::obixDataJson() const {
    return serialized(obixDataDictionary());
}

std::optional<std::string> SelvioFacialCaptureObixData::obixDataString() const {
    return obixDataJson();
}

std::string SelvioFacialCaptureObixData::getMachineName() const {
    return device_ ? device_->machineName() : "";
}

// The record as written into the photograph: whole if it fits, else with as many of the newest events as fit.
std::optional<std::string> SelvioFacialCaptureObixData::userComment() const {
    nlohmann::json record = obixDataDictionary();
    std::optional<std::string> text = serialized(record);
    if (!text || codec_->userCommentFits(*text)) return text;

    const auto events = record.find(kSelvioUxp);
    const nlohmann::json all = events != record.end() && events->is_array() ? *events : nlohmann::json::array();
    const auto withNewest = [&](std::size_t count) {
        nlohmann::json newest = nlohmann::json::array();
        for (std::size_t i = all.size() - count; i < all.size(); ++i) newest.push_back(all[i]);
        record[kSelvioUxp] = std::move(newest);
        return serialized(record);
    };
    std::size_t fits = 0;
    std::size_t tooMany = all.size();
    while (fits + 1 < tooMany) {
        const std::size_t middle = (fits + tooMany) / 2;
        (codec_->userCommentFits(*withNewest(middle)) ? fits : tooMany) = middle;
    }
    text = withNewest(fits);
    if (!codec_->userCommentFits(*text)) {
        selvio::log("The data record is too long for the photograph, which carries none");
        return std::nullopt;
    }
    selvio::log("The data record is too long for the photograph: its " + std::to_string(all.size() - fits) +
                " oldest events were left out there");
    return text;
}

std::optional<std::string> SelvioFacialCaptureObixData::addToImage(const std::optional<selvio::Image>& image,
                                                                   double compression) const {
    if (!image || !codec_) return std::nullopt;
    std::optional<selvio::Bytes> fullQuality = codec_->encodeJpeg(*image, 1.0);
    if (!fullQuality) return std::nullopt;
    const auto source = codec_->openSource(std::move(*fullQuality));
    if (!source) return std::nullopt;

    selvio::ImageProperties properties = source->properties();
    properties.jfif = selvio::JfifProperties{.xDensity = 72, .yDensity = 72, .densityUnit = 1};
    properties.lossyCompressionQuality = static_cast<float>(compression / 100.0);
    if (!properties.exif) properties.exif.emplace();
    properties.exif->userComment = userComment();

    const std::optional<selvio::Bytes> jpeg = codec_->encodeFromSource(*source, properties);
    if (!jpeg) return std::nullopt;
    return selvio::base64::encode(*jpeg);
}
