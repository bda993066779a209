// A view without a screen: it remembers what was asked of it.
#pragma once

#include <SelvioFacialCapture/platform/View.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

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
    mutable std::mutex mutex_;
    std::shared_ptr<CaptureSession> session_;  // guarded by mutex_
    std::string gravity_;                      // guarded by mutex_
    Size size_;                                // guarded by mutex_
};

/// Any thread.
class SimulatedView final : public View {
public:
    SimulatedView() : layer_(std::make_shared<SimulatedPreviewLayer>()) {}
    [[nodiscard]] std::shared_ptr<PreviewLayer> layer() const override { return layer_; }
    void setFrame(Rect frame) override;
    [[nodiscard]] Rect frame() const override;
    void addSubview(const BlurView& view) override;
    bool removeSubviewWithTag(std::int64_t tag) override;
    /// Oldest first.
    [[nodiscard]] std::vector<BlurView> subviews() const;

private:
    const std::shared_ptr<SimulatedPreviewLayer> layer_;
    mutable std::mutex mutex_;
    Rect frame_;                      // guarded by mutex_
    std::vector<BlurView> subviews_;  // guarded by mutex_
};

}  // namespace selvio
