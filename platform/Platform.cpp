#include <SelvioFacialCapture/base/ConcurrentQueue.h>
#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/platform/Platform.h>

#include <optional>

namespace selvio {
namespace {

struct DefaultPlatform {
    MemberMutex mutex;
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
    if (auto platform = h.mutex.get(h.platform)) return *std::move(platform);
    const auto offer = h.mutex.get(h.offer);
    Platform fresh = offer ? offer() : makePortablePlatform();  // foreign code, hence without the lock
    const std::lock_guard lock(h.mutex);
    if (!h.platform) h.platform = fresh;
    return *h.platform;
}

void setDefaultPlatform(Platform platform) {
    DefaultPlatform& h = holder();
    h.mutex.set(h.platform, std::move(platform));
}

bool offerDefaultPlatform(std::function<Platform()> make) {
    DefaultPlatform& h = holder();
    h.mutex.set(h.offer, std::move(make));
    return true;
}

}  // namespace selvio
