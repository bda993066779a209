// The view on a desktop: a preview layer, and a window if wanted.
#include "GstCaptureSession.h"

#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/linux/Capture.h>

#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace selvio {
namespace {

/// Shows frames in a window of its own. Any thread; a frame that comes while the last is still being drawn takes the
/// place of the one before.
class PreviewWindow {
public:
    /// Null, with one line in the log, where no window can be opened.
    static std::unique_ptr<PreviewWindow> open(Size size, const std::string& title) {
        const char* const display = std::getenv("DISPLAY");
        if (display == nullptr || *display == '\0') {
            log("Preview: there is no display");
            return nullptr;
        }
        const std::string width = std::to_string(std::max(std::lround(size.width), 16L));
        const std::string height = std::to_string(std::max(std::lround(size.height), 16L));
        const std::string scaler = elementRank("videoconvertscale") >= 0 ? "videoconvertscale" : "videoscale";
        const std::string description =
            "appsrc name=source format=time is-live=true do-timestamp=true max-buffers=1 max-bytes=0 "
            "leaky-type=downstream "
            "! video/x-raw ! aspectratiocrop aspect-ratio=" +
            width + "/" + height + " ! " + scaler + " ! video/x-raw,pixel-aspect-ratio=1/1,width=" + width +
            ",height=" + height + " ! videoflip video-direction=horiz ! videoconvert ! ximagesink sync=false";
        auto made = makePipeline(description);
        if (!made) {
            log("Preview: " + made.error().localizedDescription);
            return nullptr;
        }
        std::unique_ptr<PreviewWindow> window(new PreviewWindow(std::move(made.value())));
        GstElement* const pipeline = window->pipeline_.get();
        gst_object_set_name(GST_OBJECT(pipeline), title.c_str());
        takeMessages(pipeline, [owner = window.get()](GstMessage* message) {
            if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR && !owner->closed_.exchange(true))
                log("Preview: " + describe(message));
        });
        if (gst_element_set_state(pipeline, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE) return window;
        if (!window->closed_) log("Preview: no window could be opened");
        return nullptr;
    }
    ~PreviewWindow() { closePipeline(pipeline_.get()); }

    void show(const std::shared_ptr<SampleBuffer>& frame) {
        if (closed_) return;
        GstBuffer* const buffer = wrapSample(frame);
        if (buffer == nullptr) return;
        const PixelBufferLayout& layout = frame->imageBuffer()->layout();
        if (!layout_ || layout_->width != layout.width || layout_->height != layout.height ||
            layout_->format != layout.format) {
            layout_ = layout;
            gst_app_src_set_caps(GST_APP_SRC(source_.get()), rawVideoCaps(layout, 0).get());
        }
        gst_app_src_push_buffer(GST_APP_SRC(source_.get()), buffer);
    }

private:
    explicit PreviewWindow(GstPtr<GstElement> pipeline)
        : pipeline_(std::move(pipeline)), source_(elementNamed("source", pipeline_.get())) {}

    const GstPtr<GstElement> pipeline_;
    const GstPtr<GstElement> source_;
    std::optional<PixelBufferLayout> layout_;  // used on the camera's thread
    std::atomic<bool> closed_{false};
};

class GstPreviewLayer final : public PreviewLayer,
                              public FrameWatcher,
                              public std::enable_shared_from_this<GstPreviewLayer> {
public:
    explicit GstPreviewLayer(ViewOptions options) : options_(std::move(options)) {}
    ~GstPreviewLayer() override {
        if (!options_.window) return;
        auto session = std::dynamic_pointer_cast<GstCaptureSession>(std::move(session_));
        if (session) session->removeWatcher(this);
        GstCaptureSession::dropLater(std::move(session));  // the camera's thread may be the last to hold the layer
    }

    [[nodiscard]] std::shared_ptr<CaptureSession> session() const override { return mutex_.get(session_); }
    void setSession(std::shared_ptr<CaptureSession> session) override {
        std::shared_ptr<CaptureSession> previous;
        {
            const std::lock_guard lock(mutex_);
            previous = std::exchange(session_, session);
        }
        if (!options_.window) return;
        if (const auto own = std::dynamic_pointer_cast<GstCaptureSession>(previous)) own->removeWatcher(this);
        if (const auto own = std::dynamic_pointer_cast<GstCaptureSession>(session)) own->addWatcher(weak_from_this());
    }
    void setVideoGravity(const std::string&) override {}  // the picture always fills the layer
    [[nodiscard]] std::shared_ptr<CaptureConnection> connection() const override {
        const auto own = std::dynamic_pointer_cast<GstCaptureSession>(session());
        return own && own->hasCamera() ? connection_ : nullptr;
    }
    [[nodiscard]] MetadataObject transformedMetadataObject(const MetadataObject& object) const override {
        const std::lock_guard lock(mutex_);
        // Until a frame was seen it is taken to have the layer's shape.
        const Size frame = frameSize_.width > 0 ? frameSize_ : size_;
        MetadataObject transformed = object;
        transformed.bounds =
            onMirroredSurface(object.bounds, static_cast<int>(frame.width), static_cast<int>(frame.height), size_);
        return transformed;
    }

    void setSize(Size size) {
        const std::lock_guard lock(mutex_);
        if (size.width >= 1 && size.height >= 1) size_ = size;
    }
    /// While covered, the window shows grey.
    void setCovered(bool covered) { covered_ = covered; }
    [[nodiscard]] VideoOrientation orientation() const override { return connection_->videoOrientation(); }
    void frameArrived(const std::shared_ptr<SampleBuffer>& frame) override {
        const PixelBuffer& pixels = *frame->imageBuffer();
        Size size;
        {
            const std::lock_guard lock(mutex_);
            size = size_;
            frameSize_ = {static_cast<double>(pixels.width()), static_cast<double>(pixels.height())};
        }
        if (!std::exchange(opened_, true)) window_ = PreviewWindow::open(size, options_.title);
        if (!window_) return;
        if (!covered_) return window_->show(frame);
        auto grey = PixelBuffer::create(pixels.width(), pixels.height(), kPixelFormat32BGRA);
        if (!grey) return;
        std::memset(grey->data(), 0xC0, grey->layout().byteSize());
        window_->show(SampleBuffer::makeVideo(std::move(grey), frame->timing()));
    }

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
    void setFrame(Rect frame) override {
        layer_->setSize({frame.width, frame.height});
        PlainView::setFrame(frame);
    }
    void addSubview(const BlurView& view) override {
        const std::lock_guard lock(coverMutex_);
        PlainView::addSubview(view);
        layer_->setCovered(true);
    }
    bool removeSubviewWithTag(std::int64_t tag) override {
        const std::lock_guard lock(coverMutex_);
        const bool removed = PlainView::removeSubviewWithTag(tag);
        layer_->setCovered(!subviews().empty());
        return removed;
    }

private:
    const std::shared_ptr<GstPreviewLayer> layer_;
    std::mutex coverMutex_;  // the layer is covered exactly while something lies over it
};

}  // namespace

std::shared_ptr<View> makeGstView(ViewOptions options) {
    if (options.window && !startGStreamer()) options.window = false;
    return std::make_shared<GstView>(std::move(options));
}

}  // namespace selvio
