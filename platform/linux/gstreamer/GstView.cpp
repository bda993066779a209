// The view of a camera that a person does not look at, or sees by other means.
#include "platform/linux/gstreamer/GstCaptureSession.h"

#include <SelvioFacialCapture/linux/Capture.h>

namespace selvio {
namespace {

class GstPreviewLayer final : public PlainPreviewLayer {
public:
    [[nodiscard]] std::shared_ptr<CaptureConnection> connection() const override {
        const auto own = std::dynamic_pointer_cast<GstCaptureSession>(session());
        return own && own->hasCamera() ? connection_ : nullptr;
    }
    [[nodiscard]] MetadataObject transformedMetadataObject(const MetadataObject& object) const override {
        const Size layer = size();
        const Rect& part = object.bounds;
        MetadataObject transformed = object;
        transformed.bounds = {(1.0 - part.x - part.width) * layer.width, part.y * layer.height,
                              part.width * layer.width, part.height * layer.height};
        return transformed;
    }

private:
    const std::shared_ptr<PlainConnection> connection_ = std::make_shared<PlainConnection>(VideoOrientation::Portrait);
};

}  // namespace

std::shared_ptr<View> makeGstView() {
    return std::make_shared<PlainView>(std::make_shared<GstPreviewLayer>());
}

}  // namespace selvio
