#include "Source.h"

#include "Texts.h"

#include <SelvioFacialCapture/linux/Capture.h>
#include <SelvioFacialCapture/linux/Recording.h>
#include <SelvioFacialCapture/simulated/SimulatedPlatform.h>

#include <fstream>
#include <utility>
#include <vector>

namespace selvio::app {
namespace {

/// The sample photograph and scripts, beside the program as it was built or installed.
std::filesystem::path samplesDirectory() {
    std::error_code code;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", code);
    return program.parent_path().parent_path() / "share/SelvioFacialCapture/samples";
}

/// The component takes the first camera that a search finds. Here each search finds the one that the person chose. All
/// else is the other system's.
class OneCamera final : public CaptureSystem {
public:
    OneCamera(std::shared_ptr<CaptureSystem> system, std::shared_ptr<CaptureDevice> camera)
        : system_(std::move(system)), camera_(std::move(camera)) {}

    std::shared_ptr<CaptureDeviceDiscoverySession> discoverDevices(const std::vector<std::string>& deviceTypes,
                                                                   MediaType mediaType,
                                                                   CaptureDevicePosition position) override {
        if (mediaType != MediaType::Video) return system_->discoverDevices(deviceTypes, mediaType, position);
        return std::make_shared<CaptureDeviceDiscoverySession>(CaptureDeviceDiscoverySession{{camera_}});
    }
    std::shared_ptr<CaptureDevice> defaultDevice(MediaType mediaType) override {
        return mediaType == MediaType::Video ? camera_ : system_->defaultDevice(mediaType);
    }
    Expected<std::shared_ptr<CaptureDeviceInput>> makeDeviceInput(
        const std::shared_ptr<CaptureDevice>& device) override {
        return system_->makeDeviceInput(device);
    }
    std::shared_ptr<CaptureSession> makeSession() override { return system_->makeSession(); }
    std::shared_ptr<VideoDataOutput> makeVideoDataOutput() override { return system_->makeVideoDataOutput(); }
    std::shared_ptr<AudioDataOutput> makeAudioDataOutput() override { return system_->makeAudioDataOutput(); }
    std::shared_ptr<MetadataOutput> makeMetadataOutput() override { return system_->makeMetadataOutput(); }
    AuthorizationStatus authorizationStatus(MediaType mediaType) override {
        return system_->authorizationStatus(mediaType);
    }
    void requestAccess(MediaType mediaType, std::function<void(bool granted)> completion) override {
        system_->requestAccess(mediaType, std::move(completion));
    }

private:
    const std::shared_ptr<CaptureSystem> system_;
    const std::shared_ptr<CaptureDevice> camera_;
};

/// The camera of this name or identifier; the first one for an empty name.
std::shared_ptr<CaptureDevice> findCamera(const std::vector<std::shared_ptr<CaptureDevice>>& cameras,
                                          const std::string& name) {
    for (const auto& camera : cameras) {
        if (name.empty() || camera->localizedName() == name || camera->uniqueId() == name) return camera;
    }
    return nullptr;
}

std::string listOf(const std::vector<std::shared_ptr<CaptureDevice>>& cameras) {
    std::string names;
    for (const auto& camera : cameras) names += (names.empty() ? "'" : ", '") + camera->localizedName() + "'";
    return names.empty() ? "no cameras" : names;
}

// A camera that may not be opened is not offered, but it is there.
bool isDenied(const std::shared_ptr<CaptureSystem>& system) {
    return system && system->authorizationStatus(MediaType::Video) == AuthorizationStatus::Denied;
}

std::variant<Source, SourceFailure> useCamera(Platform& platform, std::shared_ptr<CaptureSystem> system,
                                              const std::string& name) {
    const auto cameras = camerasOf(system);
    const auto camera = findCamera(cameras, name);
    if (!camera) {
        if (isDenied(system)) return SourceFailure{ExitCode::NoCamera, "no access to the camera"};
        if (cameras.empty()) return SourceFailure{ExitCode::NoCamera, "there is no camera"};
        return SourceFailure{ExitCode::NoCamera,
                             "there is no camera named '" + name + "'; there are " + listOf(cameras)};
    }
    platform.captureSystem = std::make_shared<OneCamera>(std::move(system), camera);
    return Source{camera->localizedName(), camera->position()};
}

std::variant<Source, SourceFailure> useVideo(Platform& platform, const std::string& path, bool hevc) {
    std::error_code code;
    if (!std::filesystem::is_regular_file(path, code) || !std::ifstream(path)) {
        return SourceFailure{ExitCode::UnreadableInput,
                             path + ": " + (code ? code.message() : "cannot be read as a file")};
    }
    auto used = useCamera(
        platform,
        makeGstCaptureSystem({.systemDevices = false, .videoFiles = {path}, .recording = {.preferHEVC = hevc}}), "");
    if (std::holds_alternative<SourceFailure>(used))
        return SourceFailure{ExitCode::UnreadableInput, path + ": cannot be played"};
    return used;
}

std::variant<Source, SourceFailure> useSimulatedFront(Platform& platform, const RunOptions& options) {
    if (const auto error = useSimulated(platform, options.photo, options.script,
                                        recommendedVideoCodec({.preferHEVC = options.hevc}))) {
        return SourceFailure{ExitCode::UnreadableInput, error->localizedDescription};
    }
    return Source{"simulated", CaptureDevicePosition::Front};
}

}  // namespace

std::vector<std::shared_ptr<CaptureDevice>> camerasOf(const std::shared_ptr<CaptureSystem>& system) {
    if (!system) return {};
    const auto found = system->discoverDevices({kCaptureDeviceTypeBuiltInWideAngleCamera}, MediaType::Video,
                                               CaptureDevicePosition::Unspecified);
    return found ? found->devices : std::vector<std::shared_ptr<CaptureDevice>>{};
}

std::optional<Error> useSimulated(Platform& platform, const std::filesystem::path& photo,
                                  const std::filesystem::path& script, const std::string& videoCodec) {
    const auto photograph = photo.empty() ? samplesDirectory() / "astronaut.jpg" : photo;
    const auto picture = platform.imageLoader->loadImage(photograph.string());
    if (!picture) return picture.error();
    const auto geometry = FaceGeometry::load(FaceGeometry::pathBeside(photograph));
    if (!geometry) return geometry.error();
    const auto motion = MotionScript::load(script.empty() ? samplesDirectory() / "scripts/demo.json" : script);
    if (!motion) return motion.error();
    const auto frames = SimulatedFrames::make(picture.value(), geometry.value(), motion.value());
    if (!frames) return Error{photograph.string() + ": " + frames.error().localizedDescription};
    useSimulatedCamera(platform, frames.value(), {.videoCodec = videoCodec});
    return std::nullopt;
}

std::shared_ptr<CaptureSystem> machineCaptureSystem(bool hevc) {
    return makeGstCaptureSystem({.recording = {.preferHEVC = hevc}});
}

std::variant<Source, SourceFailure> useSource(Platform& platform, const RunOptions& options) {
    using Kind = SourceOption::Kind;
    switch (options.source.kind) {
        case Kind::Simulated:
            return useSimulatedFront(platform, options);
        case Kind::Camera:
            return useCamera(platform, machineCaptureSystem(options.hevc), options.source.name);
        case Kind::Video:
            return useVideo(platform, options.source.name, options.hevc);
        case Kind::Automatic:
            break;
    }
    auto system = machineCaptureSystem(options.hevc);
    if (camerasOf(system).empty() && !isDenied(system)) return useSimulatedFront(platform, options);
    return useCamera(platform, std::move(system), "");
}

}  // namespace selvio::app
