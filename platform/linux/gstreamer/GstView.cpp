// The view of a camera that a person does not look at, or sees in another way.
#include "GstCaptureSession.h"

#include <SelvioFacialCapture/linux/Capture.h>

namespace selvio {
namespace {

class GstPreviewLayer final : public PreviewLayer {
public:
    [[nodiscard]] std::shared_ptr<CaptureSession> session() const override { return mutex_.get(session_); }
    void setSession(std::shared_ptr<CaptureSession> session) override { mutex_.set(session_, std::move(session)); }
    void setVideoGravity(const std::string&) override {}
    [[nodiscard]] std::shared_ptr<CaptureConnection> connection() const override {
        const auto own = std::dynamic_pointer_cast<GstCaptureSession>(session());
        return own && own->hasCamera() ? connection_ : nullptr;
    }
    [[nodiscard]] MetadataObject transformedMetadataObject(const MetadataObject& object) const override {
        const Size size = mutex_.get(size_);
        const Rect& part = object.bounds;
        MetadataObject transformed = object;
        transformed.bounds = {(1.0 - part.x - part.width) * size.width, part.y * size.height, part.width * size.width,
                              part.height * size.height};
        return transformed;
    }

    void setSize(Size size) {
        if (size.width >= 1 && size.height >= 1) mutex_.set(size_, size);
    }

private:
    const std::shared_ptr<PlainConnection> connection_ = std::make_shared<PlainConnection>(VideoOrientation::Portrait);
    mutable MemberMutex mutex_;
    std::shared_ptr<CaptureSession> session_;  // guarded by mutex_
    Size size_{360, 640};                      // guarded by mutex_
};

class GstView final : public PlainView {
public:
    [[nodiscard]] std::shared_ptr<PreviewLayer> layer() const override { return layer_; }
    void setFrame(Rect frame) override {
        layer_->setSize({frame.width, frame.height});
        PlainView::setFrame(frame);
    }

private:
    const std::shared_ptr<GstPreviewLayer> layer_ = std::make_shared<GstPreviewLayer>();
};

}  // namespace

std::shared_ptr<View> makeGstView() {
    return std::make_shared<GstView>();
}

}  // namespace selvio
