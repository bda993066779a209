// The view on a desktop: a preview layer, and a window if wanted.
#pragma once

#include "GstCaptureSession.h"

#include <SelvioFacialCapture/linux/Capture.h>

namespace selvio {

/// Shows frames in a window of its own. Any thread; a frame that comes while the last is still being drawn takes the
/// place of the one before.
class PreviewWindow {
public:
    /// Null, with one line in the log, where no window can be opened.
    static std::unique_ptr<PreviewWindow> open(Size size, const std::string& title);
    ~PreviewWindow();
    void show(const std::shared_ptr<SampleBuffer>& frame);

private:
    PreviewWindow() = default;

    GstPtr<GstElement> pipeline_;
    GstPtr<GstElement> source_;
    std::optional<PixelBufferLayout> layout_;  // used on the camera's thread
    std::atomic<bool> closed_{false};
};

class GstPreviewLayer final : public PreviewLayer,
                              public FrameWatcher,
                              public std::enable_shared_from_this<GstPreviewLayer> {
public:
    explicit GstPreviewLayer(ViewOptions options) : options_(std::move(options)) {}
    ~GstPreviewLayer() override;

    [[nodiscard]] std::shared_ptr<CaptureSession> session() const override { return mutex_.get(session_); }
    void setSession(std::shared_ptr<CaptureSession> session) override;
    void setVideoGravity(const std::string&) override {}  // the picture always fills the layer
    [[nodiscard]] std::shared_ptr<CaptureConnection> connection() const override;
    [[nodiscard]] MetadataObject transformedMetadataObject(const MetadataObject& object) const override;

    void setSize(Size size);
    /// While covered, the window shows grey.
    void setCovered(bool covered) { covered_ = covered; }
    [[nodiscard]] VideoOrientation orientation() const override { return connection_->videoOrientation(); }
    void frameArrived(const std::shared_ptr<SampleBuffer>& frame) override;

private:
    const ViewOptions options_;
    const std::shared_ptr<PlainConnection> connection_ = std::make_shared<PlainConnection>(VideoOrientation::Portrait);
    mutable MemberMutex mutex_;
    std::shared_ptr<CaptureSession> session_;  // guarded by mutex_
    Size size_{360, 640};                      // guarded by mutex_
    Size frameSize_;                           // guarded by mutex_; of the last frame
    std::atomic<bool> covered_{false};
    bool opened_ = false;                    // used on the camera's thread
    std::unique_ptr<PreviewWindow> window_;  // used on the camera's thread
};

class GstView final : public PlainView {
public:
    explicit GstView(ViewOptions options) : layer_(std::make_shared<GstPreviewLayer>(std::move(options))) {}
    [[nodiscard]] std::shared_ptr<PreviewLayer> layer() const override { return layer_; }
    void setFrame(Rect frame) override;
    void addSubview(const BlurView& view) override;
    bool removeSubviewWithTag(std::int64_t tag) override;

private:
    const std::shared_ptr<GstPreviewLayer> layer_;
    std::mutex coverMutex_;  // the layer is covered exactly while something lies over it
};

}  // namespace selvio
