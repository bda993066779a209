#include <SelvioFacialCapture/platform/View.h>

#include <algorithm>

namespace selvio {

void NotificationCenter::addObserver(const std::shared_ptr<const void>& observer, ApplicationNotification notification,
                                     Handler handler) {
    const std::lock_guard lock(mutex_);
    forgetGoneObservers();
    entries_.push_back({observer.get(), notification, std::move(handler), observer});
}

void NotificationCenter::forgetGoneObservers() {
    std::erase_if(entries_, [](const Entry& entry) { return entry.lifetime.expired(); });
}

void NotificationCenter::removeObserver(Observer observer) {
    const std::lock_guard lock(mutex_);
    std::erase_if(entries_, [observer](const Entry& entry) { return entry.observer == observer; });
}

void NotificationCenter::post(ApplicationNotification notification) {
    std::vector<Handler> handlers;
    {
        const std::lock_guard lock(mutex_);
        forgetGoneObservers();
        for (const Entry& entry : entries_) {
            if (entry.notification == notification) handlers.push_back(entry.handler);
        }
    }
    for (const Handler& handler : handlers) handler();
}

}  // namespace selvio
