#include <SelvioFacialCapture/base/ConcurrentQueue.h>
#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/platform/Platform.h>

#include <optional>

namespace selvio {
namespace {

struct DefaultPlatform {
    std::mutex mutex;
    std::optional<Platform> platform;  // guarded by mutex
};

DefaultPlatform& holder() {
    static DefaultPlatform instance;
    return instance;
}

}  // namespace

Platform makePortablePlatform() {
    Platform platform;
    platform.clock = std::make_shared<SystemClock>();
    platform.mainQueue = MainQueue::shared();
    platform.globalQueue = ConcurrentQueue::shared();
    platform.makeSerialQueue = [](const std::string& label) { return std::make_shared<SerialQueue>(label); };
    platform.notificationCenter = std::make_shared<NotificationCenter>();
    return platform;
}

Platform defaultPlatform() {
    const std::lock_guard lock(holder().mutex);
    if (!holder().platform) holder().platform = makePortablePlatform();
    return *holder().platform;
}

void setDefaultPlatform(Platform platform) {
    const std::lock_guard lock(holder().mutex);
    holder().platform = std::move(platform);
}

}  // namespace selvio
