#include "platform/linux/gstreamer/GstDevices.h"

#include "platform/linux/gstreamer/PipeWireDevices.h"

#include <SelvioFacialCapture/base/Log.h>

#include <gst/pbutils/pbutils.h>

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>

namespace selvio {
namespace {

namespace fs = std::filesystem;

std::string textOf(const GstStructure* structure, const char* field) {
    const char* const text = structure ? gst_structure_get_string(structure, field) : nullptr;
    return text ? text : "";
}

// The value itself, or those of a list; none for null.
std::vector<const GValue*> valuesIn(const GValue* value) {
    if (!value) return {};
    if (!GST_VALUE_HOLDS_LIST(value)) return {value};
    std::vector<const GValue*> values;
    for (guint i = 0; i < gst_value_list_get_size(value); ++i) values.push_back(gst_value_list_get_value(value, i));
    return values;
}

// Every fraction in a value; of a range those that are worth asking for.
std::vector<rules::FrameRate> ratesIn(const GValue* value) {
    const auto rateOf = [](const GValue* fraction) {
        return rules::FrameRate{gst_value_get_fraction_numerator(fraction),
                                gst_value_get_fraction_denominator(fraction)};
    };
    std::vector<rules::FrameRate> rates;
    for (const GValue* const one : valuesIn(value)) {
        if (GST_VALUE_HOLDS_FRACTION(one)) rates.push_back(rateOf(one));
        if (!GST_VALUE_HOLDS_FRACTION_RANGE(one)) continue;
        std::ranges::copy(rules::ratesBetween(rateOf(gst_value_get_fraction_range_min(one)),
                                              rateOf(gst_value_get_fraction_range_max(one))),
                          std::back_inserter(rates));
    }
    return rates;
}

std::vector<FrameSize> sizesIn(const GstStructure* structure) {
    FrameSize only;
    if (gst_structure_get_int(structure, "width", &only.width) != FALSE &&
        gst_structure_get_int(structure, "height", &only.height) != FALSE)
        return {only};
    std::vector<FrameSize> sizes;
    for (const auto& [preset, size] : kPresetSizes) {
        const GstPtr<GstStructure> wanted(gst_structure_new(gst_structure_get_name(structure), "width", G_TYPE_INT,
                                                            size.width, "height", G_TYPE_INT, size.height, nullptr));
        if (gst_structure_can_intersect(structure, wanted.get()) != FALSE) sizes.push_back(size);
    }
    return sizes;
}

// The caps of a device as modes, in their order. Ranges of sizes are asked for the sizes of the presets.
std::vector<rules::CameraMode> modesOf(const GstCaps* caps) {
    std::vector<rules::CameraMode> modes;
    for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
        const GstStructure* const structure = gst_caps_get_structure(caps, i);
        const bool raw = gst_structure_has_name(structure, "video/x-raw");
        const bool jpeg = gst_structure_has_name(structure, "image/jpeg");
        if (!raw && !jpeg) continue;
        if (raw && gst_caps_features_contains(gst_caps_get_features(caps, i), "memory:DMABuf") != FALSE) continue;
        std::vector<std::string> formats;
        if (jpeg) formats.emplace_back();
        for (const GValue* const format : valuesIn(raw ? gst_structure_get_value(structure, "format") : nullptr)) {
            if (G_VALUE_HOLDS_STRING(format)) formats.emplace_back(g_value_get_string(format));
        }
        const rules::FrameRate rate = rules::preferredRate(ratesIn(gst_structure_get_value(structure, "framerate")));
        for (const auto& [width, height] : sizesIn(structure)) {
            for (const std::string& format : formats) {
                rules::addMode(modes, {jpeg, format, width, height, rate});
            }
        }
    }
    return modes;
}

// An element that was made, or what could not be.
Expected<GstElement*> opened(GstElement* source, const std::string& name) {
    if (!source) return Error{"\"" + name + "\" could not be opened"};
    if (g_object_class_find_property(G_OBJECT_GET_CLASS(source), "do-timestamp"))
        g_object_set(source, "do-timestamp", TRUE, nullptr);
    return source;
}

DeviceDescription describeNode(PipeWireNode node, MediaType mediaType) {
    DeviceDescription description{.id = node.name, .name = node.description, .mediaType = mediaType};
    if (node.location == "front") description.position = CaptureDevicePosition::Front;
    if (node.location == "back") description.position = CaptureDevicePosition::Back;
    description.modes = std::move(node.modes);
    std::erase_if(description.modes, [](const rules::CameraMode& mode) {
        return !mode.jpeg && gst_video_format_from_string(mode.format.c_str()) == GST_VIDEO_FORMAT_UNKNOWN;
    });
    description.node = std::move(node.node);
    description.isDefault = node.isDefault;
    description.temporaryMemory = true;  // the server takes it back when the stream ends
    description.makeSource = [id = description.id, name = description.name, mediaType]() -> Expected<GstElement*> {
        // It may have been plugged in anew. One that has gone would be waited for without end.
        const auto now = findPipeWireNodes(mediaType).value_or(std::vector<PipeWireNode>());
        const auto same = std::ranges::find(now, id, &PipeWireNode::name);
        if (same == now.end()) return Error{"\"" + name + "\" is not there any more"};
        auto source = opened(makeElement("pipewiresrc"), name);
        if (source) g_object_set(source.value(), "target-object", same->serial.c_str(), nullptr);
        return source;
    };
    return description;
}

// A device of GStreamer's; the function that makes its source keeps it.
DeviceDescription describeDevice(GstDevice* device, MediaType mediaType) {
    const GstPtr<GstStructure> properties(gst_device_get_properties(device));
    const GstPtr<char> name(gst_device_get_display_name(device));
    DeviceDescription description{.id = {}, .name = name ? name.get() : "", .mediaType = mediaType};
    description.node = textOf(properties.get(), "device.path");
    description.id = description.node.empty() ? description.name : description.node.string();
    const GstPtr<GstCaps> caps(mediaType == MediaType::Video ? gst_device_get_caps(device) : nullptr);
    if (caps) description.modes = modesOf(caps.get());
    gboolean isDefault = FALSE;
    if (properties && gst_structure_get_boolean(properties.get(), "is-default", &isDefault) != FALSE)
        description.isDefault = isDefault != FALSE;
    const std::shared_ptr<GstDevice> kept(GST_DEVICE(gst_object_ref(device)), GstUnref());
    description.makeSource = [kept, id = description.name] {
        return opened(gst_device_create_element(kept.get(), nullptr), id);
    };
    return description;
}

// What GStreamer's providers find, the one of highest rank first. The sound systems show each other's microphones: the
// first that has some is taken.
std::vector<DeviceDescription> providedDevices(MediaType mediaType) {
    const char* const wanted = mediaType == MediaType::Video ? "Video/Source" : "Audio/Source";
    std::vector<DeviceDescription> found;
    GList* const factories = g_list_sort(gst_device_provider_factory_list_get_device_providers(GST_RANK_MARGINAL),
                                         gst_plugin_feature_rank_compare_func);
    for (GList* item = factories; item && (mediaType == MediaType::Video || found.empty()); item = item->next) {
        auto* const factory = GST_DEVICE_PROVIDER_FACTORY(item->data);
        const bool isPipeWire = std::strcmp(GST_OBJECT_NAME(factory), "pipewiredeviceprovider") == 0;
        if (isPipeWire || gst_device_provider_factory_has_classes(factory, wanted) == FALSE) continue;
        const GstPtr<GstDeviceProvider> provider(gst_device_provider_factory_get(factory));
        GList* const devices = provider ? gst_device_provider_get_devices(provider.get()) : nullptr;
        for (GList* device = devices; device; device = device->next) {
            const GstPtr<GstStructure> properties(gst_device_get_properties(GST_DEVICE(device->data)));
            const bool isMonitor = textOf(properties.get(), "device.class") == "monitor";  // of a loudspeaker
            if (gst_device_has_classes(GST_DEVICE(device->data), wanted) != FALSE && !isMonitor)
                found.push_back(describeDevice(GST_DEVICE(device->data), mediaType));
        }
        g_list_free_full(devices, gst_object_unref);
    }
    gst_plugin_feature_list_free(factories);
    return found;
}

std::vector<DeviceDescription> systemDevices(MediaType mediaType) {
    const bool isVideo = mediaType == MediaType::Video;
    const auto nodes = findPipeWireNodes(mediaType);
    std::vector<DeviceDescription> candidates;
    for (const PipeWireNode& node : nodes.value_or(std::vector<PipeWireNode>()))
        candidates.push_back(describeNode(node, mediaType));
    if (!nodes || isVideo) {
        for (auto& description : providedDevices(mediaType)) candidates.push_back(std::move(description));
    }
    std::vector<DeviceDescription> found;
    for (DeviceDescription& description : candidates) {
        if (isVideo && description.modes.empty()) continue;  // nothing that could be shown
        // One camera can be offered by PipeWire and by Video4Linux: the first stands for both.
        const bool isKnown =
            !description.node.empty() && std::ranges::count(found, description.node, &DeviceDescription::node) > 0;
        if (!isKnown) found.push_back(std::move(description));
    }
    std::stable_partition(found.begin(), found.end(), std::mem_fn(&DeviceDescription::isDefault));
    return found;
}

std::optional<DeviceDescription> describeFile(const fs::path& path) {
    g_autoptr(GError) error = nullptr;
    g_autofree char* uri = gst_filename_to_uri(path.c_str(), nullptr);
    g_autoptr(GstDiscoverer) discoverer = gst_discoverer_new(5 * GST_SECOND, nullptr);
    if (!uri || !discoverer) return std::nullopt;
    g_autoptr(GstDiscovererInfo) info = gst_discoverer_discover_uri(discoverer, uri, &error);
    GList* const streams = info ? gst_discoverer_info_get_video_streams(info) : nullptr;
    if (!streams) {
        log("Capture: \"" + path.string() + "\" cannot be played: " + (error ? error->message : "it holds no video"));
        return std::nullopt;
    }
    auto* const video = GST_DISCOVERER_VIDEO_INFO(streams->data);
    rules::CameraMode mode{.format = "any",
                           .width = static_cast<int>(gst_discoverer_video_info_get_width(video)),
                           .height = static_cast<int>(gst_discoverer_video_info_get_height(video)),
                           .rate = {static_cast<int>(gst_discoverer_video_info_get_framerate_num(video)),
                                    static_cast<int>(gst_discoverer_video_info_get_framerate_denom(video))}};
    const GstTagList* const tags = gst_discoverer_stream_info_get_tags(GST_DISCOVERER_STREAM_INFO(video));
    g_autofree char* turned = nullptr;
    if (tags) gst_tag_list_get_string(tags, GST_TAG_IMAGE_ORIENTATION, &turned);
    const std::string turn = turned ? turned : "";
    if (turn.find("90") != std::string::npos || turn.find("270") != std::string::npos)
        std::swap(mode.width, mode.height);
    gst_discoverer_stream_info_list_free(streams);
    DeviceDescription description{.id = path.string(), .name = path.string(), .modes = {mode}, .playsFile = true};
    description.makeSource = [path]() -> Expected<GstElement*> {
        // The end is made a pad of the bin by hand: done by the parser, it would take the decoder's place at the
        // beginning as well.
        GstElement* const bin = gst_parse_bin_from_description(
            "filesrc name=file ! decodebin ! videoconvert ! videoflip name=end video-direction=auto", FALSE, nullptr);
        if (!bin) return Error{"\"" + path.string() + "\" could not be opened"};
        const GstPtr<GstElement> file(gst_bin_get_by_name(GST_BIN(bin), "file"));
        const GstPtr<GstElement> end(gst_bin_get_by_name(GST_BIN(bin), "end"));
        g_object_set(file.get(), "location", path.c_str(), nullptr);
        const GstPtr<GstPad> pad(gst_element_get_static_pad(end.get(), "src"));
        gst_element_add_pad(bin, gst_ghost_pad_new("src", pad.get()));
        return bin;
    };
    return description;
}

DeviceDescription describeSource(const SourceCamera& camera) {
    DeviceDescription description{.id = camera.name, .name = camera.name, .position = camera.position};
    description.modes.push_back({.format = camera.rawFormat,
                                 .width = camera.width,
                                 .height = camera.height,
                                 .rate = {camera.framesPerSecond, 1}});
    description.makeSource = [source = camera.source]() -> Expected<GstElement*> {
        g_autoptr(GError) error = nullptr;
        GstElement* const bin =
            gst_parse_bin_from_description_full(source.c_str(), TRUE, nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error);
        if (!bin) return Error{"\"" + source + "\": " + (error ? error->message : "could not be opened")};
        return bin;
    };
    return description;
}

// The LED that can light a scene. Kernel drivers name its function after the last colon.
fs::path findTorch(const fs::path& ledDirectory) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(ledDirectory, ignored)) {
        const std::string name = entry.path().filename().string();
        const std::string function = name.substr(name.rfind(':') == std::string::npos ? 0 : name.rfind(':') + 1);
        const bool lights = function.starts_with("flash") || function.starts_with("torch");
        if (lights && fs::exists(entry.path() / "brightness", ignored)) return entry.path();
    }
    return {};
}

// Asks a Video4Linux device. Opening it beside a running stream is allowed.
bool ask(const fs::path& node, unsigned long request, void* argument) {
    const int file = node.empty() ? -1 : ::open(node.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) return false;
    const bool done = ::ioctl(file, request, argument) == 0;
    ::close(file);
    return done;
}

bool hasControl(const fs::path& node, std::uint32_t control) {
    v4l2_queryctrl query{};
    query.id = control;
    return ask(node, VIDIOC_QUERYCTRL, &query) && (query.flags & V4L2_CTRL_FLAG_DISABLED) == 0;
}

bool setControl(const fs::path& node, std::uint32_t control, int value) {
    v4l2_control setting{control, value};
    return ask(node, VIDIOC_S_CTRL, &setting);
}

}  // namespace

std::string capsOf(const rules::CameraMode& mode) {
    std::string caps = mode.jpeg ? "image/jpeg" : "video/x-raw,format=" + mode.format;
    caps += ",width=" + std::to_string(mode.width) + ",height=" + std::to_string(mode.height);
    if (mode.rate.numerator > 0)
        caps += ",framerate=" + std::to_string(mode.rate.numerator) + "/" + std::to_string(mode.rate.denominator);
    return caps;
}

std::vector<DeviceDescription> findDevices(const CaptureOptions& options, MediaType mediaType) {
    std::vector<DeviceDescription> found;
    if (!startGStreamer()) return found;
    if (mediaType == MediaType::Video) {
        for (const SourceCamera& camera : options.sources) found.push_back(describeSource(camera));
        for (const fs::path& path : options.videoFiles) {
            if (auto description = describeFile(path)) found.push_back(std::move(*description));
        }
    }
    if (options.systemDevices) {
        for (auto& description : systemDevices(mediaType)) found.push_back(std::move(description));
    }
    return found;
}

NodeAccess cameraNodeAccess(const fs::path& deviceDirectory) {
    NodeAccess access = NodeAccess::None;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(deviceDirectory, ignored)) {
        if (!entry.path().filename().string().starts_with("video")) continue;
        if (::faccessat(AT_FDCWD, entry.path().c_str(), R_OK | W_OK, AT_EACCESS) == 0) return NodeAccess::Granted;
        access = NodeAccess::Refused;
    }
    return access;
}

GstCaptureDevice::GstCaptureDevice(DeviceDescription description, const fs::path& ledDirectory)
    : description_(std::move(description)),
      formats_(description_.mediaType == MediaType::Video ? rules::formatsOf(description_.modes)
                                                          : std::vector<CaptureDeviceFormat>{}),
      led_(description_.mediaType == MediaType::Video && description_.position != CaptureDevicePosition::Front
               ? findTorch(ledDirectory)
               : fs::path()),
      activeFormat_(rules::initialFormat(formats_)) {}

void GstCaptureDevice::setActiveFormat(const CaptureDeviceFormat& format) {
    if (std::find(formats_.begin(), formats_.end(), format) == formats_.end()) {
        log("Capture: \"" + description_.name + "\" has no such format");
        return;
    }
    mutex_.set(activeFormat_, format);
}

bool GstCaptureDevice::isFocusModeSupported(FocusMode mode) const {
    return hasControl(description_.node,
                      mode == FocusMode::AutoFocus ? V4L2_CID_AUTO_FOCUS_START : V4L2_CID_FOCUS_AUTO);
}

void GstCaptureDevice::setFocusMode(FocusMode mode) {
    const bool once = mode == FocusMode::AutoFocus;
    const bool done = setControl(description_.node, once ? V4L2_CID_AUTO_FOCUS_START : V4L2_CID_FOCUS_AUTO,
                                 once || mode == FocusMode::ContinuousAutoFocus ? 1 : 0);
    if (!done) log("Capture: the focus of \"" + description_.name + "\" could not be set");
}

void GstCaptureDevice::setTorchMode(TorchMode mode) {
    if (led_.empty()) return;
    int level = 0;
    if (mode == TorchMode::On && !(std::ifstream(led_ / "max_brightness") >> level)) level = 1;
    std::ofstream brightness(led_ / "brightness");
    brightness << level << std::flush;
    if (!brightness) log("Capture: the torch \"" + led_.string() + "\" could not be set");
}

}  // namespace selvio
