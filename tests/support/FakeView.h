// A view whose parts the test can look at.
#pragma once

#include <SelvioFacialCapture/platform/View.h>

#include <algorithm>
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

class FakeView final : public View {
public:
    explicit FakeView(std::shared_ptr<FakePreviewLayer> layer) : layer_(std::move(layer)) {}
    [[nodiscard]] std::shared_ptr<PreviewLayer> layer() const override { return layer_; }
    void setFrame(Rect frame) override { frame_ = frame; }
    [[nodiscard]] Rect frame() const override { return frame_; }
    void addSubview(const BlurView& view) override { subviews.push_back(view); }
    bool removeSubviewWithTag(std::int64_t tag) override {
        const auto found =
            std::find_if(subviews.begin(), subviews.end(), [tag](const BlurView& view) { return view.tag == tag; });
        if (found == subviews.end()) return false;
        subviews.erase(found);
        return true;
    }

    std::vector<BlurView> subviews;

private:
    const std::shared_ptr<FakePreviewLayer> layer_;
    Rect frame_{1.0, 2.0, 3.0, 4.0};
};

}  // namespace selvio
