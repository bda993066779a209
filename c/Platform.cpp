#include <SelvioFacialCapture/linux/LinuxPlatform.h>
#include <SelvioFacialCapture/simulated/SimulatedPlatform.h>

#include <cmath>
#include <filesystem>
#include <string>

#include "c/Support.h"

using namespace selvio::c;

namespace {

std::unique_ptr<selvio_platform> makeLinux() {
    auto platform = std::make_unique<selvio_platform>();
    platform->ports = selvio::makeLinuxPlatform();
    platform->screen = std::make_shared<selvio::LinuxScreen>();
    platform->ports.screen = platform->screen;
    return platform;
}

/// The samples lie beside the models.
std::filesystem::path sample(const char* name) {
    return std::filesystem::path(selvio::defaultVisionModelPath("")).parent_path().parent_path() / "samples" / name;
}

/// The value, or a failure with the reason.
template <typename T>
T valueOf(selvio::Expected<T> expected) {
    if (!expected) throw Failure(expected.error().localizedDescription);
    return std::move(expected.value());
}

}  // namespace

selvio_platform* selvio_platform_create_linux(char** error) {
    return guarded(error, [] { return makeLinux().release(); });
}

selvio_platform* selvio_platform_create_simulated(const char* photograph, const char* script, char** error) {
    return guarded(error, [&] {
        auto platform = makeLinux();
        const auto photographPath = photograph ? photograph : sample("astronaut.jpg");
        const auto scriptPath = script ? script : sample("scripts/demo.json");
        const auto picture = valueOf(platform->ports.imageLoader->loadImage(photographPath.string()));
        const auto geometry = valueOf(selvio::FaceGeometry::load(selvio::FaceGeometry::pathBeside(photographPath)));
        const auto frames =
            selvio::SimulatedFrames::make(picture, geometry, valueOf(selvio::MotionScript::load(scriptPath)));
        if (!frames) throw Failure(photographPath.string() + ": " + frames.error().localizedDescription);
        platform->simulated = selvio::useSimulatedCamera(
            platform->ports, frames.value(), {.videoCodec = selvio::recommendedVideoCodec(selvio::RecordingOptions{})});
        return platform.release();
    });
}

void selvio_platform_destroy(selvio_platform* platform) {
    guarded(nullptr, [&] { delete platform; });
}

bool selvio_platform_wait_for_models(selvio_platform* platform, char** error) {
    return guarded(error, [&] {
        (void)required(platform, "platform");
        if (const auto failure = selvio::waitForVisionModels()) throw Failure(failure->localizedDescription);
    });
}

bool selvio_platform_set_screen_size(selvio_platform* platform, double width, double height, char** error) {
    return guarded(error, [&] {
        const selvio_platform& on = required(platform, "platform");
        if (!(std::isfinite(width) && std::isfinite(height) && width > 0 && height > 0))
            throw Failure("a screen's sides are finite and positive");
        on.screen->setBounds({width, height});
    });
}

bool selvio_platform_may_use_camera(selvio_platform* platform, char** error) {
    return guarded(error, [&] {
        const auto& system = required(platform, "platform").ports.captureSystem;
        return system->authorizationStatus(selvio::MediaType::Video) == selvio::AuthorizationStatus::Authorized;
    });
}

bool selvio_platform_set_faults(selvio_platform* platform, uint32_t faults, char** error) {
    return guarded(error, [&] {
        const auto& simulated = required(platform, "platform").simulated;
        if (!simulated) throw Failure("only a simulated platform has faults to set");
        constexpr std::uint32_t kAll = SELVIO_FAULT_NO_CAMERA | SELVIO_FAULT_NO_MICROPHONE | SELVIO_FAULT_START_FAILS |
                                       SELVIO_FAULT_DEVICE_LOST | SELVIO_FAULT_FRAMES_STALL;
        if ((faults & ~kAll) != 0) throw Failure(std::to_string(faults) + " holds a fault that is none");
        const auto has = [&](std::uint32_t fault) { return (faults & fault) != 0; };
        simulated->setFaults({.noCamera = has(SELVIO_FAULT_NO_CAMERA),
                              .noMicrophone = has(SELVIO_FAULT_NO_MICROPHONE),
                              .startFails = has(SELVIO_FAULT_START_FAILS),
                              .deviceLost = has(SELVIO_FAULT_DEVICE_LOST),
                              .framesStall = has(SELVIO_FAULT_FRAMES_STALL)});
    });
}
