#include "platform/linux/gstreamer/PipeWireDevices.h"

#include <SelvioFacialCapture/base/Log.h>

#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>
#include <spa/debug/types.h>
#include <spa/param/video/format-utils.h>
#include <spa/param/video/type-info.h>
#include <nlohmann/json.hpp>

#include <cstring>
#include <list>
#include <memory>
#include <mutex>

namespace selvio {
namespace {

constexpr std::time_t kPatienceSeconds = 2;

struct PipeWireDelete {
    void operator()(pw_main_loop* loop) const { pw_main_loop_destroy(loop); }
    void operator()(pw_context* context) const { pw_context_destroy(context); }
    void operator()(pw_core* core) const { pw_core_disconnect(core); }
    void operator()(pw_proxy* proxy) const { pw_proxy_destroy(proxy); }
};
template <typename T>
using PipeWirePtr = std::unique_ptr<T, PipeWireDelete>;

std::string textOf(const spa_dict* properties, const char* key) {
    const char* const text = properties ? spa_dict_lookup(properties, key) : nullptr;
    return text ? text : "";
}

// What a format says of one of its fields: values to choose from, or the ends of a range.
template <typename T>
struct Choice {
    std::vector<T> values{};
    bool isRange = false;
};

template <typename T>
Choice<T> choiceOf(const spa_pod* format, std::uint32_t key, std::uint32_t type) {
    const spa_pod_prop* const property = spa_pod_find_prop(format, nullptr, key);
    if (!property) return {};
    std::uint32_t count = 0;
    std::uint32_t kind = SPA_CHOICE_None;
    const spa_pod* const values = spa_pod_get_values(&property->value, &count, &kind);
    if (values->type != type || values->size < sizeof(T) || count == 0) return {};
    const auto* const first = static_cast<const T*>(SPA_POD_BODY_CONST(values));
    switch (kind) {
        case SPA_CHOICE_None:
            return {{*first}};
        case SPA_CHOICE_Enum:
            return {{first + (count > 1 ? 1 : 0), first + count}};  // the default comes before the alternatives
        case SPA_CHOICE_Range:
        case SPA_CHOICE_Step:
            return count >= 3 ? Choice<T>{{first[1], first[2]}, true} : Choice<T>{{*first}};
        default:
            return {};
    }
}

void addModes(const spa_pod* format, std::vector<rules::CameraMode>& modes) {
    std::uint32_t type = 0;
    std::uint32_t subtype = 0;
    if (spa_format_parse(format, &type, &subtype) < 0 || type != SPA_MEDIA_TYPE_video) return;
    const bool jpeg = subtype == SPA_MEDIA_SUBTYPE_mjpg;
    if (!jpeg && subtype != SPA_MEDIA_SUBTYPE_raw) return;
    if (spa_pod_find_prop(format, nullptr, SPA_FORMAT_VIDEO_modifier)) return;

    std::vector<std::string> names;
    if (jpeg) names.emplace_back();
    for (const std::uint32_t id : choiceOf<std::uint32_t>(format, SPA_FORMAT_VIDEO_format, SPA_TYPE_Id).values) {
        const char* const name = spa_debug_type_find_short_name(spa_type_video_format, id);
        if (!jpeg && name) names.emplace_back(name);
    }
    std::vector<rules::FrameRate> rates;
    const auto fractions = choiceOf<spa_fraction>(format, SPA_FORMAT_VIDEO_framerate, SPA_TYPE_Fraction);
    for (const spa_fraction& rate : fractions.values)
        rates.push_back({static_cast<int>(rate.num), static_cast<int>(rate.denom)});
    const rules::FrameRate rate =
        rules::preferredRate(fractions.isRange ? rules::ratesBetween(rates[0], rates[1]) : rates);

    std::vector<FrameSize> sizes;
    const auto rectangles = choiceOf<spa_rectangle>(format, SPA_FORMAT_VIDEO_size, SPA_TYPE_Rectangle);
    for (const spa_rectangle& size : rectangles.values)
        sizes.push_back({static_cast<int>(size.width), static_cast<int>(size.height)});
    if (rectangles.isRange) {
        const FrameSize low = sizes[0];
        const FrameSize high = sizes[1];
        sizes.clear();
        for (const auto& [preset, size] : kPresetSizes) {
            if (size.width >= low.width && size.height >= low.height && size.width <= high.width &&
                size.height <= high.height)
                sizes.push_back(size);
        }
    }
    for (const FrameSize& size : sizes) {
        for (const std::string& name : names) rules::addMode(modes, {jpeg, name, size.width, size.height, rate});
    }
}

// One conversation with the server, all of it on the calling thread.
class Lookup {
public:
    explicit Lookup(MediaType mediaType) : mediaType_(mediaType), loop_(pw_main_loop_new(nullptr)) {}

    std::optional<std::vector<PipeWireNode>> run() {
        if (!loop_) return std::nullopt;
        pw_loop* const loop = pw_main_loop_get_loop(loop_.get());
        context_.reset(pw_context_new(loop, nullptr, 0));
        if (context_) core_.reset(pw_context_connect(context_.get(), nullptr, 0));
        if (!core_) return std::nullopt;

        // The library keeps pointers to the tables of callbacks.
        static constexpr pw_core_events kCoreEvents{
            .version = PW_VERSION_CORE_EVENTS,
            .done = [](void* self, std::uint32_t, int sequence) { static_cast<Lookup*>(self)->answered(sequence); },
            .error =
                [](void* self, std::uint32_t id, int, int, const char*) {
                    // Others: an object that has just disappeared.
                    if (id == PW_ID_CORE) static_cast<Lookup*>(self)->end(Outcome::Failed);
                },
        };
        pw_core_add_listener(core_.get(), &coreHook_, &kCoreEvents, this);
        auto* const registry = pw_core_get_registry(core_.get(), PW_VERSION_REGISTRY, 0);
        if (!registry) return std::nullopt;
        registry_.reset(reinterpret_cast<pw_proxy*>(registry));
        static constexpr pw_registry_events kRegistryEvents{
            .version = PW_VERSION_REGISTRY_EVENTS,
            .global =
                [](void* self, std::uint32_t id, std::uint32_t, const char* type, std::uint32_t,
                   const spa_dict* properties) { static_cast<Lookup*>(self)->objectAppeared(id, type, properties); },
            .global_remove =
                [](void* self, std::uint32_t id) {
                    for (Entry& entry : static_cast<Lookup*>(self)->entries_) entry.gone |= entry.id == id;
                },
        };
        pw_registry_add_listener(registry, &registryHook_, &kRegistryEvents, this);

        const auto timeOut = [](void* self, std::uint64_t) { static_cast<Lookup*>(self)->end(Outcome::TimedOut); };
        spa_source* const timer = pw_loop_add_timer(loop, timeOut, this);
        timespec patience{kPatienceSeconds, 0};
        pw_loop_update_timer(loop, timer, &patience, nullptr, false);
        pending_ = pw_core_sync(core_.get(), PW_ID_CORE, 0);
        pw_main_loop_run(loop_.get());
        pw_loop_destroy_source(loop, timer);

        if (outcome_ == Outcome::TimedOut) log("Capture: PipeWire does not answer");
        if (outcome_ != Outcome::Done) return std::nullopt;
        std::vector<PipeWireNode> found;
        for (Entry& entry : entries_) {
            if (entry.gone || entry.node.name.empty()) continue;
            entry.node.isDefault = entry.node.name == default_;
            found.push_back(std::move(entry.node));
        }
        return found;
    }

private:
    enum class Outcome { Failed, TimedOut, Done };
    struct Entry {
        std::uint32_t id = 0;
        PipeWireNode node{};
        bool gone = false;
        spa_hook hook{};
        PipeWirePtr<pw_proxy> proxy{};
    };

    void end(Outcome outcome) {
        outcome_ = outcome;
        pw_main_loop_quit(loop_.get());
    }

    // The first answer comes behind the list of objects, the second behind what was asked of each.
    void answered(int sequence) {
        if (sequence != pending_) return;
        if (++answers_ == 2) return end(Outcome::Done);
        pending_ = pw_core_sync(core_.get(), PW_ID_CORE, 0);
    }

    void objectAppeared(std::uint32_t id, const char* type, const spa_dict* properties) {
        const bool isVideo = mediaType_ == MediaType::Video;
        if (std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0) {
            const std::string wanted = isVideo ? "Video/Source" : "Audio/Source";
            const std::string mediaClass = textOf(properties, PW_KEY_MEDIA_CLASS);
            if (mediaClass == wanted || mediaClass == wanted + "/Virtual") bindNode(id);
        } else if (std::strcmp(type, PW_TYPE_INTERFACE_Metadata) == 0 &&
                   textOf(properties, PW_KEY_METADATA_NAME) == "default") {
            bindMetadata(id);
        }
    }

    // The server's object, null if there is no memory for it.
    void* bind(std::uint32_t id, const char* type, std::uint32_t version) {
        return pw_registry_bind(reinterpret_cast<pw_registry*>(registry_.get()), id, type, version, 0);
    }

    void bindNode(std::uint32_t id) {
        auto* const node = static_cast<pw_node*>(bind(id, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE));
        if (!node) return;
        Entry& entry = entries_.emplace_back();
        entry.id = id;
        entry.proxy.reset(reinterpret_cast<pw_proxy*>(node));
        static constexpr pw_node_events kNodeEvents{
            .version = PW_VERSION_NODE_EVENTS,
            .info = [](void* entry,
                       const pw_node_info* info) { describe(static_cast<Entry*>(entry)->node, info->props); },
            .param =
                [](void* entry, int, std::uint32_t parameter, std::uint32_t, std::uint32_t, const spa_pod* value) {
                    if (parameter == SPA_PARAM_EnumFormat && value)
                        addModes(value, static_cast<Entry*>(entry)->node.modes);
                },
        };
        pw_node_add_listener(node, &entry.hook, &kNodeEvents, &entry);
        if (mediaType_ == MediaType::Video) pw_node_enum_params(node, 0, SPA_PARAM_EnumFormat, 0, UINT32_MAX, nullptr);
    }

    static void describe(PipeWireNode& node, const spa_dict* properties) {
        if (!properties) return;
        node.serial = textOf(properties, PW_KEY_OBJECT_SERIAL);
        node.name = textOf(properties, PW_KEY_NODE_NAME);
        node.location = textOf(properties, "api.libcamera.location");
        for (const char* const key : {PW_KEY_NODE_DESCRIPTION, PW_KEY_NODE_NICK, PW_KEY_NODE_NAME}) {
            if (node.description.empty()) node.description = textOf(properties, key);
        }
        for (const char* const key : {"device.path", "api.v4l2.path"}) {
            if (node.node.empty()) node.node = textOf(properties, key);
        }
    }

    void bindMetadata(std::uint32_t id) {
        auto* const metadata =
            metadata_ ? nullptr : static_cast<pw_metadata*>(bind(id, PW_TYPE_INTERFACE_Metadata, PW_VERSION_METADATA));
        if (!metadata) return;
        metadata_.reset(reinterpret_cast<pw_proxy*>(metadata));
        static constexpr pw_metadata_events kMetadataEvents{
            .version = PW_VERSION_METADATA_EVENTS,
            .property =
                [](void* self, std::uint32_t, const char* key, const char*, const char* value) {
                    static_cast<Lookup*>(self)->settingRead(key, value);
                    return 0;
                },
        };
        pw_metadata_add_listener(metadata, &metadataHook_, &kMetadataEvents, this);
    }

    // The session manager keeps the person's choice as {"name": "..."}.
    void settingRead(const char* key, const char* value) {
        const char* const wanted = mediaType_ == MediaType::Video ? "default.video.source" : "default.audio.source";
        if (!key || !value || std::strcmp(key, wanted) != 0) return;
        const auto choice = nlohmann::json::parse(value, nullptr, false);
        if (choice.is_object() && choice.contains("name") && choice["name"].is_string()) default_ = choice["name"];
    }

    const MediaType mediaType_;
    std::string default_;
    Outcome outcome_ = Outcome::Failed;
    int pending_ = 0;
    int answers_ = 0;
    // Taken down from the last to the first: a proxy before its connection, and what listens to it after it.
    spa_hook coreHook_{};
    spa_hook registryHook_{};
    spa_hook metadataHook_{};
    PipeWirePtr<pw_main_loop> loop_;
    PipeWirePtr<pw_context> context_;
    PipeWirePtr<pw_core> core_;
    PipeWirePtr<pw_proxy> registry_;
    PipeWirePtr<pw_proxy> metadata_;
    std::list<Entry> entries_;  // listeners point at them
};

}  // namespace

std::optional<std::vector<PipeWireNode>> findPipeWireNodes(MediaType mediaType) {
    // One after another: the library asks for the user's name with a function that is not safe to call from two
    // threads.
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    pw_init(nullptr, nullptr);  // counted: it is kept until the process ends
    return Lookup(mediaType).run();
}

}  // namespace selvio
