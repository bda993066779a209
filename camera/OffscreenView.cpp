#include "camera/OffscreenView.h"

#include <utility>

namespace selvio {
namespace {

class OffscreenLayer final : public PreviewLayer {
public:
    [[nodiscard]] std::shared_ptr<CaptureSession> session() const override { return mutex_.get(session_); }
    void setSession(std::shared_ptr<CaptureSession> session) override { mutex_.set(session_, std::move(session)); }
    void setVideoGravity(const std::string&) override {}
    [[nodiscard]] std::shared_ptr<CaptureConnection> connection() const override { return nullptr; }
    [[nodiscard]] MetadataObject transformedMetadataObject(const MetadataObject& object) const override {
        return object;
    }

private:
    mutable MemberMutex mutex_;
    std::shared_ptr<CaptureSession> session_;  // guarded by mutex_
};

class OffscreenView final : public PlainView {
public:
    [[nodiscard]] std::shared_ptr<PreviewLayer> layer() const override { return layer_; }

private:
    const std::shared_ptr<PreviewLayer> layer_ = std::make_shared<OffscreenLayer>();
};

}  // namespace

std::shared_ptr<View> makeOffscreenView() {
    return std::make_shared<OffscreenView>();
}

}  // namespace selvio
