// Loading the models once a process, off the caller's thread.
#pragma once

#include "VisionEngine.h"

#include <SelvioFacialCapture/base/Error.h>

#include <future>
#include <memory>
#include <string>

namespace selvio {

using LoadedModels = Expected<std::shared_ptr<const VisionModels>>;

/// The models of these files: being loaded, loaded or failed. What failed is tried again at the next call. Any thread.
[[nodiscard]] std::shared_future<LoadedModels> visionModels(const std::string& detectionPath,
                                                            const std::string& meshPath);

}  // namespace selvio
