// A view whose parts the test can look at.
#pragma once

#include <SelvioFacialCapture/platform/View.h>

#include <utility>

namespace selvio {

class FakePreviewLayer final : public PreviewLayer {
public:
    explicit FakePreviewLayer(std::shared_ptr<CaptureConnection> connection) : connection_(std::move(connection)) {}
    [[nodiscard]] std::shared_ptr<CaptureSession> session() const override { return mutex_.get(session_); }
    void setSession(std::shared_ptr<CaptureSession> session) override { mutex_.set(session_, std::move(session)); }
    void setVideoGravity(const std::string& value) override { gravity = value; }
    [[nodiscard]] std::shared_ptr<CaptureConnection> connection() const override { return connection_; }
    [[nodiscard]] MetadataObject transformedMetadataObject(const MetadataObject& object) const override {
        return {object.type, "transformed", object.bounds};
    }

    std::string gravity;

private:
    const std::shared_ptr<CaptureConnection> connection_;
    mutable MemberMutex mutex_;
    std::shared_ptr<CaptureSession> session_;  // guarded by mutex_
};

struct FakeView final : PlainView {
    explicit FakeView(std::shared_ptr<FakePreviewLayer> shows) : shows(std::move(shows)) {}
    [[nodiscard]] std::shared_ptr<PreviewLayer> layer() const override { return shows; }
    const std::shared_ptr<FakePreviewLayer> shows;
};

}  // namespace selvio
