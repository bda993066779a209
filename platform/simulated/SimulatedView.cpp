#include <SelvioFacialCapture/simulated/SimulatedView.h>

#include "platform/simulated/SimulatedSession.h"

#include <algorithm>

namespace selvio {

std::shared_ptr<CaptureSession> SimulatedPreviewLayer::session() const {
    const std::lock_guard lock(mutex_);
    return session_;
}

void SimulatedPreviewLayer::setSession(std::shared_ptr<CaptureSession> session) {
    {
        const std::lock_guard lock(mutex_);
        session_.swap(session);
    }
    // the session before goes here, outside of the lock
}

void SimulatedPreviewLayer::setVideoGravity(const std::string& gravity) {
    const std::lock_guard lock(mutex_);
    gravity_ = gravity;
}

std::string SimulatedPreviewLayer::videoGravity() const {
    const std::lock_guard lock(mutex_);
    return gravity_;
}

std::shared_ptr<CaptureConnection> SimulatedPreviewLayer::connection() const {
    const auto simulated = std::dynamic_pointer_cast<SimulatedSession>(session());
    return simulated == nullptr ? nullptr : simulated->previewConnection();
}

MetadataObject SimulatedPreviewLayer::transformedMetadataObject(const MetadataObject& object) const {
    const std::lock_guard lock(mutex_);
    MetadataObject scaled = object;
    scaled.bounds = {object.bounds.x * size_.width, object.bounds.y * size_.height, object.bounds.width * size_.width,
                     object.bounds.height * size_.height};
    return scaled;
}

void SimulatedPreviewLayer::setSize(Size size) {
    const std::lock_guard lock(mutex_);
    size_ = size;
}

void SimulatedView::setFrame(Rect frame) {
    layer_->setSize({frame.width, frame.height});
    const std::lock_guard lock(mutex_);
    frame_ = frame;
}

Rect SimulatedView::frame() const {
    const std::lock_guard lock(mutex_);
    return frame_;
}

void SimulatedView::addSubview(const BlurView& view) {
    const std::lock_guard lock(mutex_);
    subviews_.push_back(view);
}

bool SimulatedView::removeSubviewWithTag(std::int64_t tag) {
    const std::lock_guard lock(mutex_);
    const auto found = std::find_if(subviews_.begin(), subviews_.end(), [tag](const BlurView& view) { return view.tag == tag; });
    if (found == subviews_.end()) return false;
    subviews_.erase(found);
    return true;
}

std::vector<BlurView> SimulatedView::subviews() const {
    const std::lock_guard lock(mutex_);
    return subviews_;
}

}  // namespace selvio
