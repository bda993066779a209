#include <array>
#include <atomic>
#include <future>
#include <string>

#include "c/Support.h"

using namespace selvio::c;

namespace {

using HostCallbacks = Callbacks<selvio_camera_callbacks>;

/// Where the frames go.
struct Route {
    selvio::MemberMutex mutex;
    std::weak_ptr<SelvioFacialCaptureAnalyzer> analyzer;  // guarded by mutex
};

constexpr selvio_camera_options kDefaultOptions = {.position = SELVIO_CAMERA_FRONT,
                                                   .preset = SELVIO_PRESET_1280X720,
                                                   .pixel_format = SELVIO_PIXEL_FORMAT_NV12,
                                                   .detect_barcodes = false};
// In the order of selvio_camera_preset.
constexpr std::array kPresets = {selvio::kCaptureSessionPresetHigh, selvio::kCaptureSessionPreset640x480,
                                 selvio::kCaptureSessionPreset1280x720, selvio::kCaptureSessionPreset1920x1080};

void check(const selvio_camera_options& options) {
    if (options.position < SELVIO_CAMERA_ANY || options.position > SELVIO_CAMERA_FRONT)
        throw Failure("there is no position " + std::to_string(options.position));
    if (options.preset < SELVIO_PRESET_HIGH || options.preset > SELVIO_PRESET_1920X1080)
        throw Failure("there is no preset " + std::to_string(options.preset));
    checkPixelFormat(options.pixel_format);
}

std::shared_ptr<SelvioFacialCaptureCameraDelegate> delegateFor(const std::shared_ptr<HostCallbacks>& host,
                                                               const std::shared_ptr<Route>& route) {
    auto delegate = std::make_shared<SelvioFacialCaptureCameraDelegate>();
    // The camera counts as configured only for a delegate with this member.
    delegate->didFinishConfiguringSession = [host] { host->call(&selvio_camera_callbacks::did_finish_configuring); };
    delegate->didReceiveSampleBuffer = [host, route](const std::shared_ptr<selvio::SampleBuffer>& sampleBuffer) {
        if (!sampleBuffer->imageBuffer()) return;
        if (const auto analyzer = route->mutex.get(route->analyzer).lock()) analyzer->analyzeSampleBuffer(sampleBuffer);
        const selvio_frame frame{sampleBuffer};
        host->call(&selvio_camera_callbacks::did_receive_frame, &frame);
    };
    delegate->didDropSampleBuffer = [host](const auto&) { host->call(&selvio_camera_callbacks::did_drop_frame); };
    delegate->didDecodeBarcode = [host](const std::string& text) {
        host->call(&selvio_camera_callbacks::did_decode_barcode, text.c_str());
    };
    delegate->didFinishRecordingVideo = [host](const std::vector<std::uint8_t>& data) {
        host->call(&selvio_camera_callbacks::did_finish_recording, data.data(), data.size());
    };
    return delegate;
}

}  // namespace

struct selvio_camera {
    std::shared_ptr<SelvioFacialCaptureCamera> object;
    std::shared_ptr<HostCallbacks> callbacks = std::make_shared<HostCallbacks>();
    std::shared_ptr<Route> route = std::make_shared<Route>();
    std::shared_ptr<SelvioFacialCaptureCameraDelegate> delegate{};  // the camera holds it weakly
    std::atomic<bool> configuring{false};

    [[nodiscard]] bool isRunning() const {
        const auto session = object->session();
        return session && session->isRunning();
    }
};

selvio_camera* selvio_camera_create(selvio_platform* platform, const selvio_parameters* parameters,
                                    const selvio_camera_options* options, char** error) {
    return guarded(error, [&] {
        const selvio::Platform& ports = required(platform, "platform").ports;
        const selvio_camera_options& chosen = options ? *options : kDefaultOptions;
        check(chosen);
        const selvio::Size screen = ports.screen->bounds();
        auto camera = std::make_unique<selvio_camera>();
        camera->object = SelvioFacialCaptureCamera::initWithPreset(
            kPresets[static_cast<std::size_t>(chosen.preset)], chosen.pixel_format,
            selvio::CaptureDevicePosition{chosen.position}, {0, 0, screen.width, screen.height}, ports);
        camera->object->setAnalyzeRGBVideo(chosen.pixel_format == SELVIO_PIXEL_FORMAT_BGRA);
        camera->object->setDetectPDF417(chosen.detect_barcodes);
        if (parameters) camera->object->setParameters(parameters->object->cameraParameters());
        return camera.release();
    });
}

void selvio_camera_destroy(selvio_camera* camera) {
    guarded(nullptr, [&] {
        const std::unique_ptr<selvio_camera> ending(camera);
        if (!ending) return;
        ending->object->stop();
        ending->object->shutdown();
        ending->callbacks->gate.close();
    });
}

bool selvio_camera_set_analyzer(selvio_camera* camera, selvio_analyzer* analyzer, char** error) {
    return guarded(error, [&] {
        Route& route = *required(camera, "camera").route;
        route.mutex.set(route.analyzer, analyzer ? analyzer->object : nullptr);
    });
}

bool selvio_camera_configure(selvio_camera* camera, const selvio_camera_callbacks* callbacks, char** error) {
    return guarded(error, [&] {
        selvio_camera& on = required(camera, "camera");
        if (on.configuring.exchange(true)) throw Failure("the camera has been configured already");
        if (callbacks) on.callbacks->members = *callbacks;
        on.delegate = delegateFor(on.callbacks, on.route);
        on.object->setDelegate(on.delegate);
    });
}

bool selvio_camera_start(selvio_camera* camera, char** error) {
    return guarded(error, [&] {
        const selvio_camera& on = required(camera, "camera");
        if (!on.configuring) throw Failure("the camera has not been configured");
        on.object->start();
    });
}

bool selvio_camera_wait_until_started(selvio_camera* camera, char** error) {
    return guarded(error, [&] {
        const selvio_camera& on = required(camera, "camera");
        if (on.callbacks->gate.isInside()) throw Failure("a callback of the camera cannot wait for it");
        const auto reached = std::make_shared<std::promise<void>>();
        on.object->videoQueue()->async([reached] { reached->set_value(); });
        reached->get_future().wait();
        if (!on.object->isConfigured()) throw Failure("the camera could not be opened; the log says why");
        if (!on.isRunning()) throw Failure("the camera does not run; the log says why");
    });
}

bool selvio_camera_is_running(const selvio_camera* camera, char** error) {
    return guarded(error, [&] { return required(camera, "camera").isRunning(); });
}

bool selvio_camera_stop(selvio_camera* camera, char** error) {
    return guarded(error, [&] { required(camera, "camera").object->stop(); });
}

bool selvio_camera_stop_recording(selvio_camera* camera, char** error) {
    return guarded(error, [&] { required(camera, "camera").object->stopRecording(); });
}

bool selvio_camera_set_torch(selvio_camera* camera, bool on, char** error) {
    return guarded(error, [&] {
        SelvioFacialCaptureCamera& object = *required(camera, "camera").object;
        if (!(on ? object.turnTorchOn() : object.turnTorchOff())) throw Failure("the camera has no torch");
    });
}
