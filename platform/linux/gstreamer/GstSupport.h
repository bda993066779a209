// What every GStreamer adapter needs: start-up, owning pointers, pixels to and from GStreamer's buffers.
#pragma once

#include "platform/capture/FrameSize.h"

#include <SelvioFacialCapture/base/Error.h>
#include <SelvioFacialCapture/imaging/SampleBuffer.h>

#include <gst/gst.h>
#include <gst/video/video.h>

#include <functional>
#include <memory>
#include <string>

namespace selvio {

struct GstUnref {
    void operator()(GstElement* element) const { gst_object_unref(element); }
    void operator()(GstBus* bus) const { gst_object_unref(bus); }
    void operator()(GstPad* pad) const { gst_object_unref(pad); }
    void operator()(GstDevice* device) const { gst_object_unref(device); }
    void operator()(GstDeviceProvider* provider) const { gst_object_unref(provider); }
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
    void operator()(GstStructure* structure) const { gst_structure_free(structure); }
    void operator()(char* text) const { g_free(text); }
};

/// Owns one reference.
template <typename T>
using GstPtr = std::unique_ptr<T, GstUnref>;

/// Starts GStreamer once a process; false, logged once, if it cannot start.
bool startGStreamer();

/// The rank of an installed element, -1 if there is none of that name.
[[nodiscard]] int elementRank(const std::string& element);

/// GStreamer's name of a pixel format ("BGRA", "NV12"), null for a format without one.
[[nodiscard]] const char* gstFormatName(PixelFormat format);

/// Caps of raw frames of this layout; no frame rate if `framesPerSecond` is not positive.
[[nodiscard]] GstPtr<GstCaps> rawVideoCaps(const PixelBufferLayout& layout, int framesPerSecond);

/// A GStreamer buffer over the sample's pixels, which it keeps alive and does not copy. Null without a picture.
[[nodiscard]] GstBuffer* wrapSample(const std::shared_ptr<SampleBuffer>& sample);

/// A pixel buffer over the part `crop` of a GStreamer frame, which stays mapped and referenced as long as the buffer
/// lives; nothing is copied. Null if the frame is neither BGRA nor 420v, the crop does not lie inside it, or for 420v
/// does not begin on even places.
[[nodiscard]] std::shared_ptr<PixelBuffer> wrapFrame(GstBuffer* buffer, const GstVideoInfo& info,
                                                     const FrameCrop& crop);

[[nodiscard]] GstElement* makeElement(const std::string& factory);
/// The pipeline that a description, as gst-launch takes it, of two elements at least stands for.
[[nodiscard]] Expected<GstPtr<GstElement>> makePipeline(const std::string& description);
/// The element of that name in a pipeline.
[[nodiscard]] GstPtr<GstElement> elementNamed(const char* name, GstElement* pipeline);
/// Calls `take` with the messages of a pipeline, on the threads that post them, until it is closed.
void takeMessages(GstElement* pipeline, std::function<void(GstMessage*)> take);
/// Stops a pipeline. Null is ignored.
void closePipeline(GstElement* pipeline);

/// User data of a GStreamer callback, and its destroy function.
template <typename T>
[[nodiscard]] gpointer makeUserData(T data) {
    return new T(std::move(data));
}
template <typename T>
void deleteUserData(gpointer data) {
    delete static_cast<T*>(data);
}

/// The text of an error message, with its source.
[[nodiscard]] std::string describe(GstMessage* message);

}  // namespace selvio
