// The data record of a capture.
#pragma once

#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/platform/Platform.h>

#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

/// Keys of the record, for hosts that read it.
extern "C" {
SELVIO_EXPORT extern const char* const kObixObixVersion;
SELVIO_EXPORT extern const char* const kSelvioPlatfrom;  ///< spelled this way; the key is "Platform"
SELVIO_EXPORT extern const char* const kSelvioOS;
SELVIO_EXPORT extern const char* const kSelvioDevice;
SELVIO_EXPORT extern const char* const kSelvioModel;
SELVIO_EXPORT extern const char* const kSelvioManufacturer;
SELVIO_EXPORT extern const char* const kSelvioParameters;
SELVIO_EXPORT extern const char* const kSelvioUxp;
SELVIO_EXPORT extern const char* const kSelvioSdkVersion;
}

/// One flat JSON object that says on what device, with which parameters and guidance, and how a capture went.
/// Every operation may be called on any thread. Device and codec are asked with no lock held.
class SELVIO_EXPORT SelvioFacialCaptureObixData {
public:
    /// A record with the seven initial members. `platform` supplies the device's facts and the image codec.
    [[nodiscard]] static std::shared_ptr<SelvioFacialCaptureObixData> init(
        const selvio::Platform& platform = selvio::defaultPlatform());
    ~SelvioFacialCaptureObixData();

    /// The format of the record: "1.6".
    [[nodiscard]] static std::string obixVersion();

    /// Sets the members that describe the record, the device and the component.
    void addInitialElements();
    /// Merges the members of a JSON object; a key already present is overwritten. Anything but an object changes
    /// nothing.
    void add(const nlohmann::json& dictionary);
    /// Stores the parameters unless the record has some already: the first ones of a capture win.
    void addParameters(const nlohmann::json& dictionary);
    /// Stores the event log, replacing an earlier one.
    void addUXP(const nlohmann::json& events);

    /// A copy of the record's members.
    [[nodiscard]] nlohmann::json obixDataDictionary() const;
    /// The record as JSON without white space, in ASCII: other characters stand as "\u" escapes. Nothing if a member's
    /// text is not UTF-8.
    [[nodiscard]] std::optional<std::string> obixDataJson() const;
    /// The same as text.
    [[nodiscard]] std::optional<std::string> obixDataString() const;

    /// The hardware identifier.
    [[nodiscard]] std::string getMachineName() const;

    /// The image as base64 text (one line) of a JPEG at `compression` percent (0...100), 72 x 72 dots per inch, with
    /// the record in its EXIF user comment. The image is encoded at full quality first and then anew at the quality
    /// asked for. Nothing if there is no image or it cannot be encoded.
    ///
    /// An EXIF segment holds 64 KiB. From a record that is longer, the oldest events are left out of the user comment
    /// until it fits; if even a record without events is too long, the photograph carries none. Both are logged;
    /// `obixDataString` stays whole.
    [[nodiscard]] std::optional<std::string> addToImage(const std::optional<selvio::Image>& image,
                                                        double compression) const;

private:
    explicit SelvioFacialCaptureObixData(const selvio::Platform& platform);
    [[nodiscard]] std::optional<std::string> userComment() const;

    const std::shared_ptr<const selvio::Device> device_;
    const std::shared_ptr<const selvio::ImageCodec> codec_;
    mutable std::mutex mutex_;
    const std::unique_ptr<nlohmann::json> dictionary_;  // its value: guarded by mutex_
};
