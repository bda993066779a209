#include <SelvioFacialCapture/platform/View.h>

#include <algorithm>
#include <utility>

namespace selvio {

std::shared_ptr<CaptureSession> PlainPreviewLayer::session() const {
    return mutex_.get(session_);
}

void PlainPreviewLayer::setSession(std::shared_ptr<CaptureSession> session) {
    mutex_.set(session_, std::move(session));
}

void PlainPreviewLayer::setVideoGravity(const std::string&) {}

std::shared_ptr<CaptureConnection> PlainPreviewLayer::connection() const {
    return nullptr;
}

MetadataObject PlainPreviewLayer::transformedMetadataObject(const MetadataObject& object) const {
    return object;
}

void PlainPreviewLayer::setSize(Size size) {
    if (size.width >= 1.0 && size.height >= 1.0) mutex_.set(size_, size);
}

Size PlainPreviewLayer::size() const {
    return mutex_.get(size_);
}

PlainView::PlainView() : PlainView(std::make_shared<PlainPreviewLayer>()) {}

PlainView::PlainView(std::shared_ptr<PlainPreviewLayer> layer) : layer_(std::move(layer)) {}

std::shared_ptr<PreviewLayer> PlainView::layer() const {
    return layer_;
}

void PlainView::setFrame(Rect frame) {
    layer_->setSize({frame.width, frame.height});
    mutex_.set(frame_, frame);
}

Rect PlainView::frame() const {
    return mutex_.get(frame_);
}

void PlainView::addSubview(const BlurView& view) {
    const std::lock_guard lock(mutex_);
    subviews_.push_back(view);
}

bool PlainView::removeSubviewWithTag(std::int64_t tag) {
    const std::lock_guard lock(mutex_);
    const auto found =
        std::find_if(subviews_.begin(), subviews_.end(), [tag](const BlurView& view) { return view.tag == tag; });
    if (found == subviews_.end()) return false;
    subviews_.erase(found);
    return true;
}

std::vector<BlurView> PlainView::subviews() const {
    return mutex_.get(subviews_);
}

}  // namespace selvio
