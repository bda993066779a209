// Loading the models once a process, off the caller's thread.
#pragma once

#include "VisionEngine.h"

#include <SelvioFacialCapture/base/Error.h>

#include <future>
#include <memory>
#include <string>

namespace selvio::hog {

using LoadedModels = Expected<std::shared_ptr<const VisionModels>>;

/// The models with this landmark file: being loaded, loaded or failed. A failed file is tried again at the next call.
/// Any thread.
[[nodiscard]] std::shared_future<LoadedModels> visionModels(const std::string& landmarkModelPath);

}  // namespace selvio::hog
