#include <SelvioFacialCapture/platform/View.h>

#include <algorithm>

namespace selvio {

void PlainView::setFrame(Rect frame) {
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
