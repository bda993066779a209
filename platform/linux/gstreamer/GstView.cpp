#include "GstView.h"

#include <SelvioFacialCapture/base/Log.h>

#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace selvio {

// ---- window

std::unique_ptr<PreviewWindow> PreviewWindow::open(Size size, const std::string& title) {
    const char* const display = std::getenv("DISPLAY");
    if (display == nullptr || *display == '\0') {
        log("Preview: there is no display");
        return nullptr;
    }
    const std::string width = std::to_string(std::max(std::lround(size.width), 16L));
    const std::string height = std::to_string(std::max(std::lround(size.height), 16L));
    const std::string scaler = elementRank("videoconvertscale") >= 0 ? "videoconvertscale" : "videoscale";
    const std::string description =
        "appsrc name=source format=time is-live=true do-timestamp=true max-buffers=1 max-bytes=0 leaky-type=downstream "
        "! video/x-raw ! aspectratiocrop aspect-ratio=" +
        width + "/" + height + " ! " + scaler + " ! video/x-raw,pixel-aspect-ratio=1/1,width=" + width +
        ",height=" + height + " ! videoflip video-direction=horiz ! videoconvert ! ximagesink sync=false";
    std::unique_ptr<PreviewWindow> window(new PreviewWindow);
    GError* failure = nullptr;
    window->pipeline_.reset(gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &failure));
    if (const GstPtr<GError> error(failure); !window->pipeline_) {
        log(std::string("Preview: ") + (error ? error->message : "no window could be opened"));
        return nullptr;
    }
    GstElement* const pipeline = GST_ELEMENT(gst_object_ref_sink(window->pipeline_.get()));
    gst_object_set_name(GST_OBJECT(pipeline), title.c_str());
    window->source_.reset(gst_bin_get_by_name(GST_BIN(pipeline), "source"));
    const GstPtr<GstBus> bus(gst_element_get_bus(pipeline));
    const auto onMessage = [](GstBus*, GstMessage* message, gpointer owner) {
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR &&
            !static_cast<PreviewWindow*>(owner)->closed_.exchange(true)) {
            log("Preview: " + describe(message));
        }
        gst_message_unref(message);
        return GST_BUS_DROP;
    };
    gst_bus_set_sync_handler(bus.get(), onMessage, window.get(), nullptr);
    if (gst_element_set_state(pipeline, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE) return window;
    if (!window->closed_) log("Preview: no window could be opened");
    return nullptr;
}

PreviewWindow::~PreviewWindow() {
    if (!pipeline_) return;
    gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
    const GstPtr<GstBus> bus(gst_element_get_bus(pipeline_.get()));
    gst_bus_set_sync_handler(bus.get(), nullptr, nullptr, nullptr);
}

void PreviewWindow::show(const std::shared_ptr<SampleBuffer>& frame) {
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

// ---- layer

GstPreviewLayer::~GstPreviewLayer() {
    if (!options_.window) return;
    auto session = std::dynamic_pointer_cast<GstCaptureSession>(std::move(session_));
    if (session) session->removeWatcher(this);
    GstCaptureSession::dropLater(std::move(session));  // the camera's thread may be the last to hold the layer
}

void GstPreviewLayer::setSession(std::shared_ptr<CaptureSession> session) {
    std::shared_ptr<CaptureSession> previous;
    {
        const std::lock_guard lock(mutex_);
        previous = std::exchange(session_, session);
    }
    if (!options_.window) return;
    if (const auto own = std::dynamic_pointer_cast<GstCaptureSession>(previous)) own->removeWatcher(this);
    if (const auto own = std::dynamic_pointer_cast<GstCaptureSession>(session)) own->addWatcher(weak_from_this());
}

std::shared_ptr<CaptureConnection> GstPreviewLayer::connection() const {
    const auto own = std::dynamic_pointer_cast<GstCaptureSession>(session());
    return own && own->hasCamera() ? connection_ : nullptr;
}

MetadataObject GstPreviewLayer::transformedMetadataObject(const MetadataObject& object) const {
    const std::lock_guard lock(mutex_);
    // Until a frame was seen it is taken to have the layer's shape.
    const Size frame = frameSize_.width > 0 ? frameSize_ : size_;
    MetadataObject transformed = object;
    transformed.bounds =
        onMirroredSurface(object.bounds, static_cast<int>(frame.width), static_cast<int>(frame.height), size_);
    return transformed;
}

void GstPreviewLayer::setSize(Size size) {
    const std::lock_guard lock(mutex_);
    if (size.width >= 1 && size.height >= 1) size_ = size;
}

void GstPreviewLayer::frameArrived(const std::shared_ptr<SampleBuffer>& frame) {
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

// ---- view

void GstView::setFrame(Rect frame) {
    layer_->setSize({frame.width, frame.height});
    PlainView::setFrame(frame);
}

void GstView::addSubview(const BlurView& view) {
    const std::lock_guard lock(coverMutex_);
    PlainView::addSubview(view);
    layer_->setCovered(true);
}

bool GstView::removeSubviewWithTag(std::int64_t tag) {
    const std::lock_guard lock(coverMutex_);
    const bool removed = PlainView::removeSubviewWithTag(tag);
    layer_->setCovered(!subviews().empty());
    return removed;
}

std::shared_ptr<View> makeGstView(ViewOptions options) {
    if (options.window && !startGStreamer()) options.window = false;
    return std::make_shared<GstView>(std::move(options));
}

}  // namespace selvio
