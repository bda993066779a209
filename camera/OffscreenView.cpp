#include "camera/OffscreenView.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace selvio {
namespace {

class OffscreenLayer final : public PreviewLayer {
public:
    [[nodiscard]] std::shared_ptr<CaptureSession> session() const override {
        const std::lock_guard lock(mutex_);
        return session_;
    }
    void setSession(std::shared_ptr<CaptureSession> session) override {
        const std::lock_guard lock(mutex_);
        std::swap(session_, session);
    }
    void setVideoGravity(const std::string&) override {}
    [[nodiscard]] std::shared_ptr<CaptureConnection> connection() const override { return nullptr; }
    [[nodiscard]] MetadataObject transformedMetadataObject(const MetadataObject& object) const override { return object; }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<CaptureSession> session_;  // guarded by mutex_
};

class OffscreenView final : public View {
public:
    [[nodiscard]] std::shared_ptr<PreviewLayer> layer() const override { return layer_; }
    void setFrame(Rect frame) override { frame_ = frame; }
    [[nodiscard]] Rect frame() const override { return frame_; }
    void addSubview(const BlurView& view) override { subviews_.push_back(view); }
    bool removeSubviewWithTag(std::int64_t tag) override {
        const auto found = std::find_if(subviews_.begin(), subviews_.end(), [tag](const BlurView& view) { return view.tag == tag; });
        if (found == subviews_.end()) return false;
        subviews_.erase(found);
        return true;
    }

private:
    const std::shared_ptr<PreviewLayer> layer_ = std::make_shared<OffscreenLayer>();
    // Main thread only, as the port says.
    Rect frame_;
    std::vector<BlurView> subviews_;
};

}  // namespace

std::shared_ptr<View> makeOffscreenView() {
    return std::make_shared<OffscreenView>();
}

}  // namespace selvio
