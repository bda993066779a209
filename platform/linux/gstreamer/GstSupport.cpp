#include "platform/linux/gstreamer/GstSupport.h"

#include <SelvioFacialCapture/base/Log.h>

#include <algorithm>
#include <iterator>

namespace selvio {
namespace {

struct Format {
    PixelFormat code;
    const char* name;
    GstVideoFormat gst;
};
constexpr Format kFormats[] = {{kPixelFormat32BGRA, "BGRA", GST_VIDEO_FORMAT_BGRA},
                               {kPixelFormat32ARGB, "ARGB", GST_VIDEO_FORMAT_ARGB},
                               {kPixelFormat420v, "NV12", GST_VIDEO_FORMAT_NV12}};

/// The component's code of a raw format; 0 if it has none.
PixelFormat pixelFormatOf(GstVideoFormat format) {
    const auto* const found = std::ranges::find(kFormats, format, &Format::gst);
    return found == std::end(kFormats) ? 0 : found->code;
}

}  // namespace

bool startGStreamer() {
    static const bool started = [] {
        g_autoptr(GError) error = nullptr;
        if (gst_init_check(nullptr, nullptr, &error) != FALSE) return true;
        log(std::string("GStreamer could not start: ") + (error ? error->message : "unknown reason"));
        return false;
    }();
    return started;
}

int elementRank(const std::string& element) {
    GstElementFactory* const factory = gst_element_factory_find(element.c_str());
    if (!factory) return -1;
    const int rank = static_cast<int>(gst_plugin_feature_get_rank(GST_PLUGIN_FEATURE(factory)));
    gst_object_unref(factory);
    return rank;
}

const char* gstFormatName(PixelFormat format) {
    const auto* const found = std::ranges::find(kFormats, format == 0 ? kPixelFormat32BGRA : format, &Format::code);
    return found == std::end(kFormats) ? nullptr : found->name;
}

GstPtr<GstCaps> rawVideoCaps(const PixelBufferLayout& layout, int framesPerSecond) {
    GstPtr<GstCaps> caps(gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, gstFormatName(layout.format),
                                             "width", G_TYPE_INT, layout.width, "height", G_TYPE_INT, layout.height,
                                             "pixel-aspect-ratio", GST_TYPE_FRACTION, 1, 1, nullptr));
    if (framesPerSecond > 0)
        gst_caps_set_simple(caps.get(), "framerate", GST_TYPE_FRACTION, framesPerSecond, 1, nullptr);
    if (layout.format == kPixelFormat420v)
        gst_caps_set_simple(caps.get(), "colorimetry", G_TYPE_STRING, "bt601", nullptr);
    return caps;
}

GstBuffer* wrapSample(const std::shared_ptr<SampleBuffer>& sample) {
    const auto& pixels = sample->imageBuffer();
    const char* const format = pixels ? gstFormatName(pixels->format()) : nullptr;
    if (!format) return nullptr;
    GstBuffer* const buffer = gst_buffer_new();
    gsize offsets[GST_VIDEO_MAX_PLANES] = {};
    gint strides[GST_VIDEO_MAX_PLANES] = {};
    gsize offset = 0;
    for (int plane = 0; plane < pixels->planeCount(); ++plane) {
        const std::size_t bytes = pixels->layout().planeBytes(plane);
        gst_buffer_append_memory(
            buffer, gst_memory_new_wrapped(GST_MEMORY_FLAG_READONLY, pixels->data(plane), bytes, 0, bytes,
                                           makeUserData(sample), deleteUserData<std::shared_ptr<SampleBuffer>>));
        offsets[plane] = offset;
        strides[plane] = static_cast<gint>(pixels->bytesPerRow(plane));
        offset += bytes;
    }
    gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, gst_video_format_from_string(format),
                                   static_cast<guint>(pixels->width()), static_cast<guint>(pixels->height()),
                                   static_cast<guint>(pixels->planeCount()), offsets, strides);
    return buffer;
}

std::shared_ptr<PixelBuffer> wrapFrame(GstBuffer* buffer, const GstVideoInfo& info, const FrameCrop& crop) {
    const PixelFormat format = pixelFormatOf(GST_VIDEO_INFO_FORMAT(&info));
    const bool twoPlanes = format == kPixelFormat420v;
    if (format == 0 || crop.x < 0 || crop.y < 0 || crop.width < 1 || crop.height < 1) return nullptr;
    if (crop.x + crop.width > GST_VIDEO_INFO_WIDTH(&info) || crop.y + crop.height > GST_VIDEO_INFO_HEIGHT(&info))
        return nullptr;
    if (twoPlanes && (crop.x % 2 != 0 || crop.y % 2 != 0)) return nullptr;

    auto frame = std::make_unique<GstVideoFrame>();
    if (gst_video_frame_map(frame.get(), &info, buffer, GST_MAP_READ) == FALSE) return nullptr;
    // The frame is shared with the callbacks for good, so the unmapping is part of the buffer's release from here on.
    const std::shared_ptr<GstVideoFrame> mapped(frame.release(), [](GstVideoFrame* held) {
        gst_video_frame_unmap(held);
        delete held;
    });
    std::array<std::size_t, 2> bytesPerRow{};
    std::array<std::uint8_t*, 2> planes{};
    for (std::size_t plane = 0; plane < (twoPlanes ? 2U : 1U); ++plane) {
        const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(mapped.get(), plane);
        if (stride <= 0) return nullptr;
        bytesPerRow[plane] = static_cast<std::size_t>(stride);
        const int row = plane == 0 ? crop.y : crop.y / 2;
        const int column = twoPlanes ? crop.x : crop.x * 4;  // a Cb and Cr pair is two bytes for two pixels
        planes[plane] = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(mapped.get(), plane)) +
                        bytesPerRow[plane] * static_cast<std::size_t>(row) + static_cast<std::size_t>(column);
    }
    const auto layout = PixelBufferLayout::make(crop.width, crop.height, format, bytesPerRow);
    if (!layout) return nullptr;
    return PixelBuffer::wrap(*layout, planes, [mapped] {});
}

GstElement* makeElement(const std::string& factory) {
    return gst_element_factory_make(factory.c_str(), nullptr);
}

Expected<GstPtr<GstElement>> makePipeline(const std::string& description) {
    g_autoptr(GError) error = nullptr;
    GstPtr<GstElement> pipeline(
        gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error));
    if (!pipeline) return Error{error ? error->message : "unknown reason"};
    gst_object_ref_sink(pipeline.get());
    return pipeline;
}

GstPtr<GstElement> elementNamed(const char* name, GstElement* pipeline) {
    return GstPtr<GstElement>(gst_bin_get_by_name(GST_BIN(pipeline), name));
}

void takeMessages(GstElement* pipeline, std::function<void(GstMessage*)> take) {
    using Take = std::function<void(GstMessage*)>;
    const auto onMessage = [](GstBus*, GstMessage* message, gpointer kept) {
        (*static_cast<Take*>(kept))(message);
        gst_message_unref(message);
        return GST_BUS_DROP;
    };
    const GstPtr<GstBus> bus(gst_element_get_bus(pipeline));
    gst_bus_set_sync_handler(bus.get(), onMessage, makeUserData(std::move(take)), deleteUserData<Take>);
}

void closePipeline(GstElement* pipeline) {
    if (!pipeline) return;
    gst_element_set_state(pipeline, GST_STATE_NULL);
    const GstPtr<GstBus> bus(gst_element_get_bus(pipeline));
    gst_bus_set_sync_handler(bus.get(), nullptr, nullptr, nullptr);
}

std::string describe(GstMessage* message) {
    g_autoptr(GError) error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    const char* const source = GST_MESSAGE_SRC_NAME(message);
    return std::string(source ? source : "pipeline") + ": " + (error ? error->message : "unknown error");
}

}  // namespace selvio
