#include "VirtualCamera.h"

#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace selvio::test {
namespace {

struct Camera {
    pw_main_loop* loop = nullptr;
    pw_stream* stream = nullptr;
    spa_source* timer = nullptr;
    std::vector<VirtualCameraMode> modes;
    int framesPerSecond = 30;
    FrameFiller fill;
    VirtualCameraMode mode;
    std::uint64_t frame = 0;

    [[nodiscard]] int stride() const { return mode.format == "NV12" ? mode.width : mode.width * 4; }
    [[nodiscard]] int bytes() const {
        return mode.format == "NV12" ? mode.width * mode.height * 3 / 2 : stride() * mode.height;
    }
};

spa_video_format formatOf(const std::string& name) {
    if (name == "NV12") return SPA_VIDEO_FORMAT_NV12;
    return name == "BGRA" ? SPA_VIDEO_FORMAT_BGRA : SPA_VIDEO_FORMAT_BGRx;
}

void onTimer(void* data, std::uint64_t) {
    pw_stream_trigger_process(static_cast<Camera*>(data)->stream);
}

void onState(void* data, pw_stream_state, pw_stream_state state, const char*) {
    auto* const camera = static_cast<Camera*>(data);
    pw_loop* const loop = pw_main_loop_get_loop(camera->loop);
    timespec interval{0, 1'000'000'000L / camera->framesPerSecond};
    timespec first{0, 1};
    const bool runs = state == PW_STREAM_STATE_STREAMING;
    pw_loop_update_timer(loop, camera->timer, runs ? &first : nullptr, runs ? &interval : nullptr, false);
    if (state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED) pw_main_loop_quit(camera->loop);
}

void onParameter(void* data, std::uint32_t id, const spa_pod* parameter) {
    auto* const camera = static_cast<Camera*>(data);
    spa_video_info_raw chosen{};
    if (id != SPA_PARAM_Format || parameter == nullptr || spa_format_video_raw_parse(parameter, &chosen) < 0) return;
    for (const VirtualCameraMode& mode : camera->modes) {
        const VirtualCameraMode wanted{mode.format, static_cast<int>(chosen.size.width),
                                       static_cast<int>(chosen.size.height)};
        const bool sameSize = mode.width == 0 || (mode.width == wanted.width && mode.height == wanted.height);
        if (sameSize && formatOf(mode.format) == chosen.format) camera->mode = wanted;
    }
    std::array<std::uint8_t, 1024> memory{};
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    const spa_pod* parameters[1] = {static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
        SPA_POD_CHOICE_RANGE_Int(8, 2, 16), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size,
        SPA_POD_Int(camera->bytes()), SPA_PARAM_BUFFERS_stride, SPA_POD_Int(camera->stride())))};
    pw_stream_update_params(camera->stream, parameters, 1);
}

void onProcess(void* data) {
    auto* const camera = static_cast<Camera*>(data);
    pw_buffer* const buffer = pw_stream_dequeue_buffer(camera->stream);
    if (buffer == nullptr) return;
    spa_data& block = buffer->buffer->datas[0];
    if (block.data != nullptr) {
        camera->fill(
            std::chrono::nanoseconds(camera->frame++ * 1'000'000'000U / static_cast<unsigned>(camera->framesPerSecond)),
            camera->mode, static_cast<std::uint8_t*>(block.data));
        block.chunk->offset = 0;
        block.chunk->size = static_cast<std::uint32_t>(camera->bytes());
        block.chunk->stride = camera->stride();
    }
    pw_stream_queue_buffer(camera->stream, buffer);
}

void onSignal(void* data, int) {
    pw_main_loop_quit(static_cast<Camera*>(data)->loop);
}

}  // namespace

void fillPattern(std::chrono::nanoseconds time, const VirtualCameraMode& mode, std::uint8_t* out) {
    const bool planar = mode.format == "NV12";
    const auto pixelBytes = static_cast<std::size_t>(planar ? 1 : 4);
    const auto width = static_cast<std::size_t>(mode.width);
    const auto height = static_cast<std::size_t>(mode.height);
    std::memset(out, 0x60, width * height * pixelBytes);
    if (planar) std::memset(out + width * height, 0x80, width * height / 2);
    const auto bar = static_cast<std::size_t>(time.count() % 1'000'000'000 * mode.width / 1'000'000'000);
    for (std::size_t row = 0; row < height; ++row)
        std::memset(out + (row * width + bar) * pixelBytes, 0xEB, std::min<std::size_t>(16, width - bar) * pixelBytes);
}

int publishVirtualCamera(const std::string& name, const std::string& position,
                         const std::vector<VirtualCameraMode>& modes, int framesPerSecond, const FrameFiller& fill) {
    pw_init(nullptr, nullptr);
    Camera camera;
    camera.modes = modes;
    camera.framesPerSecond = framesPerSecond;
    camera.fill = fill;
    camera.loop = pw_main_loop_new(nullptr);
    pw_loop* const loop = pw_main_loop_get_loop(camera.loop);
    pw_loop_add_signal(loop, SIGINT, onSignal, &camera);
    pw_loop_add_signal(loop, SIGTERM, onSignal, &camera);
    camera.timer = pw_loop_add_timer(loop, onTimer, &camera);

    pw_stream_events events{};
    events.version = PW_VERSION_STREAM_EVENTS;
    events.state_changed = onState;
    events.param_changed = onParameter;
    events.process = onProcess;
    pw_properties* const properties =
        pw_properties_new(PW_KEY_MEDIA_CLASS, "Video/Source", PW_KEY_NODE_NAME, name.c_str(), PW_KEY_NODE_DESCRIPTION,
                          name.c_str(), PW_KEY_MEDIA_ROLE, "Camera", nullptr);
    if (!position.empty()) pw_properties_set(properties, "api.libcamera.location", position.c_str());
    camera.stream = pw_stream_new_simple(loop, name.c_str(), properties, &events, &camera);

    std::vector<std::array<std::uint8_t, 512>> memory(modes.size());
    std::vector<const spa_pod*> formats;
    for (std::size_t i = 0; i < modes.size(); ++i) {
        spa_pod_builder builder{};
        spa_pod_builder_init(&builder, memory[i].data(), static_cast<std::uint32_t>(memory[i].size()));
        const spa_rectangle size{static_cast<std::uint32_t>(modes[i].width),
                                 static_cast<std::uint32_t>(modes[i].height)};
        const spa_fraction rate{static_cast<std::uint32_t>(framesPerSecond), 1};
        if (size.width > 0) {
            spa_video_info_raw info{};
            info.format = formatOf(modes[i].format);
            info.size = size;
            info.framerate = rate;
            formats.push_back(spa_format_video_raw_build(&builder, SPA_PARAM_EnumFormat, &info));
            continue;
        }
        const spa_rectangle smallest{320, 240}, largest{1280, 720};
        const spa_fraction slow{15, 1};
        formats.push_back(static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType,
            SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
            SPA_FORMAT_VIDEO_format, SPA_POD_Id(formatOf(modes[i].format)), SPA_FORMAT_VIDEO_size,
            SPA_POD_CHOICE_RANGE_Rectangle(&smallest, &smallest, &largest), SPA_FORMAT_VIDEO_framerate,
            SPA_POD_CHOICE_ENUM_Fraction(3, &slow, &slow, &rate))));
    }
    const auto flags = static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS);
    const int result = pw_stream_connect(camera.stream, PW_DIRECTION_OUTPUT, PW_ID_ANY, flags, formats.data(),
                                         static_cast<std::uint32_t>(formats.size()));
    if (result < 0) {
        std::fprintf(stderr, "virtual camera: %s\n", std::strerror(-result));
    } else {
        pw_main_loop_run(camera.loop);
    }
    pw_stream_destroy(camera.stream);
    pw_main_loop_destroy(camera.loop);
    pw_deinit();
    return result < 0 ? 1 : 0;
}

}  // namespace selvio::test
