#include "camera/OffscreenView.h"

#include <mutex>
#include <utility>

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
    [[nodiscard]] MetadataObject transformedMetadataObject(const MetadataObject& object) const override {
        return object;
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<CaptureSession> session_;  // guarded by mutex_
};

class OffscreenView final : public View {
public:
    [[nodiscard]] std::shared_ptr<PreviewLayer> layer() const override { return layer_; }
    void setFrame(Rect frame) override { frame_ = frame; }
    [[nodiscard]] Rect frame() const override { return frame_; }
    void addSubview(const BlurView&) override {}
    bool removeSubviewWithTag(std::int64_t) override { return false; }

private:
    const std::shared_ptr<PreviewLayer> layer_ = std::make_shared<OffscreenLayer>();
    Rect frame_;  // main thread only, as the port says
};

}  // namespace

std::shared_ptr<View> makeOffscreenView() {
    return std::make_shared<OffscreenView>();
}

}  // namespace selvio
