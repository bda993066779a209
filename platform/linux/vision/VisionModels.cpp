#include "VisionModels.h"

#include <SelvioFacialCapture/linux/Vision.h>

#include <dlfcn.h>

#include <chrono>
#include <exception>
#include <filesystem>
#include <map>
#include <mutex>
#include <utility>

namespace selvio {
namespace {

template <typename Part>
Expected<std::shared_ptr<const Part>> loadPart(const std::string& path) {
    std::string reason;
    try {
        auto model = readModel(path);
        if (model) {
            auto part = Part::make(std::move(model.value()));
            if (part) return part;
            reason = path + " cannot be used: " + part.error().localizedDescription;
        } else {
            reason = model.error().localizedDescription;
        }
    } catch (const std::exception& exception) {
        reason = path + " cannot be loaded: " + exception.what();
    }
    return Error{reason + "; scripts/install-deps.sh installs the face models"};
}

LoadedModels loadModels(const std::string& detectionPath, const std::string& meshPath) {
    const auto detection = loadPart<FaceDetection>(detectionPath);
    if (!detection) return detection.error();
    const auto mesh = loadPart<FaceMesh>(meshPath);
    if (!mesh) return mesh.error();
    return std::make_shared<const VisionModels>(VisionModels{detection.value(), mesh.value()});
}

bool hasFailed(const std::shared_future<LoadedModels>& models) {
    return models.wait_for(std::chrono::seconds(0)) == std::future_status::ready && !models.get();
}

}  // namespace

std::string defaultVisionModelPath(const std::string& fileName) {
    // The library may have been moved together with what was installed beside it.
    Dl_info library{};
    std::error_code code;
    std::filesystem::path start;
    if (dladdr(reinterpret_cast<const void*>(&defaultVisionModelPath), &library) != 0 && library.dli_fname != nullptr)
        start = std::filesystem::absolute(library.dli_fname, code).parent_path();
    const auto relative = std::filesystem::path("share/SelvioFacialCapture/models") / fileName;
    for (auto directory = start.parent_path(); directory.has_relative_path(); directory = directory.parent_path()) {
        if (std::filesystem::exists(directory / relative, code)) return directory / relative;
    }
    return start.parent_path() / relative;
}

std::shared_future<LoadedModels> visionModels(const std::string& detectionPath, const std::string& meshPath) {
    static std::mutex mutex;
    static std::map<std::pair<std::string, std::string>, std::shared_future<LoadedModels>> loaded;  // guarded by mutex
    const std::lock_guard lock(mutex);
    auto& models = loaded[{detectionPath, meshPath}];
    if (!models.valid() || hasFailed(models)) {
        models = std::async(std::launch::async, [detectionPath, meshPath] {
                     return loadModels(detectionPath, meshPath);
                 }).share();
    }
    return models;
}

}  // namespace selvio
