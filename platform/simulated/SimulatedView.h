// A view without a screen: it remembers what was asked of it.
#pragma once

#include <SelvioFacialCapture/platform/View.h>

#include <memory>
#include <string>

namespace selvio {

/// Any thread.
class SimulatedPreviewLayer final : public PreviewLayer {
public:
    [[nodiscard]] std::shared_ptr<CaptureSession> session() const override;
    void setSession(std::shared_ptr<CaptureSession> session) override;
    void setVideoGravity(const std::string& gravity) override;
    [[nodiscard]] std::string videoGravity() const;
    /// Null for a session of another capture system, too.
    [[nodiscard]] std::shared_ptr<CaptureConnection> connection() const override;
    /// The bounds scaled to the layer's size.
    [[nodiscard]] MetadataObject transformedMetadataObject(const MetadataObject& object) const override;
    void setSize(Size size);

private:
    mutable MemberMutex mutex_;
    std::shared_ptr<CaptureSession> session_;  // guarded by mutex_
    std::string gravity_;                      // guarded by mutex_
    Size size_;                                // guarded by mutex_
};

/// Any thread.
class SimulatedView final : public PlainView {
public:
    SimulatedView() : layer_(std::make_shared<SimulatedPreviewLayer>()) {}
    [[nodiscard]] std::shared_ptr<PreviewLayer> layer() const override { return layer_; }
    void setFrame(Rect frame) override;

private:
    const std::shared_ptr<SimulatedPreviewLayer> layer_;
};

}  // namespace selvio
