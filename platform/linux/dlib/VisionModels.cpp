#include "VisionModels.h"

#include <chrono>
#include <exception>
#include <map>
#include <mutex>

namespace selvio::hog {
namespace {

const std::shared_ptr<const HogFilters>& sharedFilters() {
    // Outlives every thread that may still load models at exit.
    static const auto* const filters = new std::shared_ptr<const HogFilters>(HogFilters::load());
    return *filters;
}

LoadedModels loadModels(const std::string& path) try {
    auto landmarks = LandmarkModel::load(path);
    if (!landmarks) return landmarks.error();
    const auto& filters = sharedFilters();
    if (!filters) return Error{"The face detector could not be set up"};
    return std::make_shared<const VisionModels>(VisionModels{filters, landmarks.value()});
} catch (const std::exception& exception) {
    return Error{"The face landmark model " + path + " could not be loaded: " + exception.what()};
}

bool hasFailed(const std::shared_future<LoadedModels>& models) {
    return models.wait_for(std::chrono::seconds(0)) == std::future_status::ready && !models.get();
}

}  // namespace

std::shared_future<LoadedModels> visionModels(const std::string& landmarkModelPath) {
    static std::mutex mutex;
    static std::map<std::string, std::shared_future<LoadedModels>> loaded;  // guarded by mutex
    const std::lock_guard lock(mutex);
    auto& models = loaded[landmarkModelPath];
    if (!models.valid() || hasFailed(models))
        models = std::async(std::launch::async, [landmarkModelPath] { return loadModels(landmarkModelPath); }).share();
    return models;
}

}  // namespace selvio::hog
