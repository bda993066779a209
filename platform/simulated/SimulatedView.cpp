#include "platform/simulated/SimulatedView.h"

#include "platform/simulated/SimulatedSession.h"

namespace selvio {

std::shared_ptr<CaptureSession> SimulatedPreviewLayer::session() const {
    return mutex_.get(session_);
}

void SimulatedPreviewLayer::setSession(std::shared_ptr<CaptureSession> session) {
    mutex_.set(session_, std::move(session));
}

void SimulatedPreviewLayer::setVideoGravity(const std::string& gravity) {
    mutex_.set(gravity_, gravity);
}

std::string SimulatedPreviewLayer::videoGravity() const {
    return mutex_.get(gravity_);
}

std::shared_ptr<CaptureConnection> SimulatedPreviewLayer::connection() const {
    const auto simulated = std::dynamic_pointer_cast<SimulatedSession>(session());
    return simulated == nullptr ? nullptr : simulated->previewConnection();
}

MetadataObject SimulatedPreviewLayer::transformedMetadataObject(const MetadataObject& object) const {
    const Size size = mutex_.get(size_);
    MetadataObject scaled = object;
    scaled.bounds = {object.bounds.x * size.width, object.bounds.y * size.height, object.bounds.width * size.width,
                     object.bounds.height * size.height};
    return scaled;
}

void SimulatedPreviewLayer::setSize(Size size) {
    mutex_.set(size_, size);
}

void SimulatedView::setFrame(Rect frame) {
    layer_->setSize({frame.width, frame.height});
    PlainView::setFrame(frame);
}

}  // namespace selvio
