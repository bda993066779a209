#include <SelvioFacialCapture/base/ConcurrentQueue.h>
#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/platform/Platform.h>

namespace selvio {
namespace {

struct DefaultPlatform {
    MemberMutex mutex;
    Platform platform = makePortablePlatform();  // guarded by mutex
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
    return holder().mutex.get(holder().platform);
}

void setDefaultPlatform(Platform platform) {
    holder().mutex.set(holder().platform, std::move(platform));
}

}  // namespace selvio
