#include "GstView.h"

#include <SelvioFacialCapture/base/ConcurrentQueue.h>
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
    std::unique_ptr<PreviewWindow> window(new PreviewWindow);
    window->pipeline_.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(title.c_str()))));
    GstElement* const source = makeElement("appsrc");
    GstElement* const flip = makeElement("videoflip");
    GstElement* const sink = makeElement("ximagesink");
    if (source != nullptr) {
        window->source_.reset(GST_ELEMENT(gst_object_ref(source)));
        g_object_set(source, "format", GST_FORMAT_TIME, "is-live", TRUE, "do-timestamp", TRUE, "max-buffers",
                     guint64{1}, "max-bytes", guint64{0}, nullptr);
        gst_util_set_object_arg(G_OBJECT(source), "leaky-type", "downstream");
    }
    if (flip != nullptr) gst_util_set_object_arg(G_OBJECT(flip), "method", "horizontal-flip");
    if (sink != nullptr) g_object_set(sink, "sync", FALSE, nullptr);
    const std::string shape =
        "video/x-raw,pixel-aspect-ratio=1/1,width=" + std::to_string(std::max(std::lround(size.width), 16L)) +
        ",height=" + std::to_string(std::max(std::lround(size.height), 16L));
    const bool oneStep = elementRank("videoconvertscale") >= 0;
    std::vector<GstElement*> chain{source, makeElement(oneStep ? "videoconvertscale" : "videoscale"),
                                   makeCapsFilter(shape)};
    if (!oneStep) chain.push_back(makeElement("videoconvert"));
    chain.insert(chain.end(), {flip, makeElement("videoconvert"), sink});
    std::optional<Error> error = addChain(window->pipeline_.get(), chain);
    if (!error) {
        const GstPtr<GstBus> bus(gst_element_get_bus(window->pipeline_.get()));
        const auto onMessage = [](GstBus*, GstMessage* message, gpointer owner) {
            if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR &&
                !static_cast<PreviewWindow*>(owner)->closed_.exchange(true)) {
                log("Preview: " + describe(message));
            }
            gst_message_unref(message);
            return GST_BUS_DROP;
        };
        gst_bus_set_sync_handler(bus.get(), onMessage, window.get(), nullptr);
        if (gst_element_set_state(window->pipeline_.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
            error = Error{"no window could be opened"};
    }
    if (!error) return window;
    if (!window->closed_) log("Preview: " + error->localizedDescription);
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
    if (const auto session = std::dynamic_pointer_cast<GstCaptureSession>(session_)) session->removeWatcher(this);
    // The camera's thread may be the last to hold the layer; it cannot end a session, which waits for that thread.
    ConcurrentQueue::shared()->async([session = std::move(session_)]() mutable { session.reset(); });
}

std::shared_ptr<CaptureSession> GstPreviewLayer::session() const {
    const std::lock_guard lock(mutex_);
    return session_;
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
    const auto& whole = frame->imageBuffer();
    const FrameCrop upright = cropFor(whole->width(), whole->height(), connection_->videoOrientation());
    Size size;
    {
        const std::lock_guard lock(mutex_);
        size = size_;
        frameSize_ = {static_cast<double>(upright.width), static_cast<double>(upright.height)};
    }
    if (!std::exchange(opened_, true)) window_ = PreviewWindow::open(size, options_.title);
    if (!window_) return;

    const FrameCrop fill = cropToFill(upright.width, upright.height, size);
    if (covered_) {
        auto grey = PixelBuffer::create(fill.width, fill.height, kPixelFormat32BGRA);
        if (grey) std::memset(grey->data(), 0xC0, grey->layout().byteSize());
        if (grey) window_->show(SampleBuffer::makeVideo(std::move(grey), frame->timing()));
        return;
    }
    const bool twoPlanes = whole->planeCount() == 2;
    const std::size_t x = static_cast<std::size_t>(upright.x) + static_cast<std::size_t>(fill.x);
    const std::size_t y = static_cast<std::size_t>(upright.y) + static_cast<std::size_t>(fill.y);
    const auto layout = PixelBufferLayout::make(fill.width, fill.height, whole->format(),
                                                {whole->bytesPerRow(0), twoPlanes ? whole->bytesPerRow(1) : 0});
    if (!layout) return;
    std::uint8_t* const first = whole->data(0) + y * whole->bytesPerRow(0) + x * (twoPlanes ? 1 : 4);
    std::uint8_t* const second = twoPlanes ? whole->data(1) + y / 2 * whole->bytesPerRow(1) + x : nullptr;
    window_->show(SampleBuffer::makeVideo(PixelBuffer::wrap(*layout, {first, second}, [whole] {}), frame->timing()));
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
