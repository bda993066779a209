// What the analyzer knows of the current frame, and in the end the captured picture.
#pragma once

#include <SelvioFacialCapture/SelvioFacialCaptureStatus.h>
#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/imaging/Geometry.h>
#include <SelvioFacialCapture/imaging/Image.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

/// The results object: made anew for every analysed frame and handed to the delegate.
///
/// Every operation may be called on any thread: the object guards itself and hands out values. What is absent was never
/// set. Points and rectangles are in screen points of a portrait screen, origin at the top left, in the detector's
/// point order.
class SELVIO_EXPORT SelvioFacialCaptureResults {
public:
    using Points = std::optional<std::vector<selvio::Point>>;
    using Statuses = std::optional<std::vector<SelvioFacialCaptureStatus>>;

    /// The localisation key of a status; nothing for a value outside the enumeration.
    [[nodiscard]] static std::optional<std::string> localizeKeyFrom(SelvioFacialCaptureStatus status);
    /// The word that the data record uses for a result code; nothing for a value outside the enumeration.
    [[nodiscard]] static std::optional<std::string> stringFrom(SelvioFacialCaptureResultCode resultCode);

    /// The status that the host should show for the current frame.
    [[nodiscard]] SelvioFacialCaptureStatus highestPriorityStatus() const;
    void setHighestPriorityStatus(SelvioFacialCaptureStatus status);

    /// Every status of the current frame, the most important first.
    [[nodiscard]] Statuses orderedStatuses() const;
    /// Stores the list as it is given, without sorting. Its first element becomes the highest-priority status; an
    /// absent or empty list leaves that one as it was.
    void setOrderedStatuses(Statuses statuses);

    [[nodiscard]] Points faceContourPoints() const;
    void setFaceContourPoints(Points points);
    [[nodiscard]] Points noseCrestPoints() const;
    void setNoseCrestPoints(Points points);
    [[nodiscard]] Points nosePoints() const;
    void setNosePoints(Points points);
    [[nodiscard]] Points leftEyePoints() const;
    void setLeftEyePoints(Points points);
    [[nodiscard]] Points rightEyePoints() const;
    void setRightEyePoints(Points points);
    [[nodiscard]] Points innerLipsPoints() const;
    void setInnerLipsPoints(Points points);
    [[nodiscard]] Points outerLipsPoints() const;
    void setOuterLipsPoints(Points points);

    /// The frame chosen as the result of the capture.
    [[nodiscard]] std::optional<selvio::Image> selectedImage() const;
    void setSelectedImage(std::optional<selvio::Image> image);
    /// The chosen frame as base64 text of a JPEG that carries the data record in its EXIF user comment.
    [[nodiscard]] std::optional<std::string> encodedSelectedImage() const;
    void setEncodedSelectedImage(std::optional<std::string> base64);
    /// The data record as JSON text.
    [[nodiscard]] std::optional<std::string> obixDataString() const;
    void setObixDataString(std::optional<std::string> json);

    [[nodiscard]] SelvioFacialCaptureResultCode resultCode() const;
    void setResultCode(SelvioFacialCaptureResultCode code);

    /// The face's rectangle.
    [[nodiscard]] selvio::Rect faceRect() const;
    void setFaceRect(selvio::Rect rect);

    /// A new object with what is known of the frame: all but the image, the texts and the result code.
    [[nodiscard]] std::shared_ptr<SelvioFacialCaptureResults> withoutSelection() const;

private:
    mutable selvio::MemberMutex mutex_;  // guards every member below
    SelvioFacialCaptureStatus highestPriorityStatus_ = SelvioFacialCaptureStatusNone;
    Statuses orderedStatuses_;
    Points faceContourPoints_;
    Points noseCrestPoints_;
    Points nosePoints_;
    Points leftEyePoints_;
    Points rightEyePoints_;
    Points innerLipsPoints_;
    Points outerLipsPoints_;
    std::optional<selvio::Image> selectedImage_;
    std::optional<std::string> encodedSelectedImage_;
    std::optional<std::string> obixDataString_;
    SelvioFacialCaptureResultCode resultCode_ = SelvioFacialCaptureResultCodeNone;
    selvio::Rect faceRect_;
};
