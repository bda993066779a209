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
    std::function<Platform()> offer;   // guarded by mutex
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
    DefaultPlatform& h = holder();
    const std::lock_guard lock(h.mutex);
    if (!h.platform) h.platform = h.offer ? h.offer() : makePortablePlatform();
    return *h.platform;
}

void setDefaultPlatform(Platform platform) {
    DefaultPlatform& h = holder();
    const std::lock_guard lock(h.mutex);
    h.platform = std::move(platform);
}

bool offerDefaultPlatform(std::function<Platform()> make) {
    DefaultPlatform& h = holder();
    const std::lock_guard lock(h.mutex);
    h.offer = std::move(make);
    return true;
}

}  // namespace selvio
