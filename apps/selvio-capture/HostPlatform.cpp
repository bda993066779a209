#include "HostPlatform.h"

#include <SelvioFacialCapture/linux/Codec.h>
#include <SelvioFacialCapture/linux/Device.h>
#include <SelvioFacialCapture/linux/Files.h>
#include <SelvioFacialCapture/linux/LinuxPlatform.h>

namespace selvio::app {

std::shared_ptr<const ImageCodec> makeImageCodec() {
    return std::make_shared<LibjpegImageCodec>();
}

std::shared_ptr<const ImageLoader> makeImageLoader() {
    return std::make_shared<JpegPngImageLoader>();
}

std::shared_ptr<FileManager> makeFileManager() {
    return std::make_shared<LinuxFileManager>();
}

Platform makeHostPlatform() {
    auto platform = makeLinuxPlatform();
    platform.screen = std::make_shared<LinuxScreen>(Size{1080, 1920});
    return platform;
}

std::optional<Error> waitForModels() {
    return waitForVisionModels();
}

std::filesystem::path samplesDirectory() {
    std::error_code code;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", code);
    return program.parent_path().parent_path() / "share/SelvioFacialCapture/samples";
}

}  // namespace selvio::app
