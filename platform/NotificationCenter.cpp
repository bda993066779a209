#include <SelvioFacialCapture/platform/View.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <utility>

namespace selvio {

void NotificationCenter::addObserver(const std::shared_ptr<const void>& observer, ApplicationNotification notification,
                                     Handler handler) {
    remove([](const Entry& entry) { return entry.lifetime.expired(); });
    const std::lock_guard lock(mutex_);
    entries_.push_back({observer.get(), notification, std::move(handler), observer});
}

void NotificationCenter::removeObserver(Observer observer) {
    remove([observer](const Entry& entry) { return entry.observer == observer; });
}

// Handlers are destroyed outside the lock.
template <typename Condition>
void NotificationCenter::remove(Condition condition) {
    std::vector<Entry> removed;
    const std::lock_guard lock(mutex_);
    const auto first = std::stable_partition(entries_.begin(), entries_.end(), std::not_fn(condition));
    std::move(first, entries_.end(), std::back_inserter(removed));
    entries_.erase(first, entries_.end());
}

void NotificationCenter::post(ApplicationNotification notification) {
    const auto observe = [notification](const Entry& entry) {
        return entry.notification == notification && !entry.lifetime.expired();
    };
    std::vector<Entry> observers;
    {
        const std::lock_guard lock(mutex_);
        std::copy_if(entries_.begin(), entries_.end(), std::back_inserter(observers), observe);
    }
    const auto isStillThere = [&](Observer observer) {  // a handler may have removed the others
        const std::lock_guard lock(mutex_);
        return std::any_of(entries_.begin(), entries_.end(),
                           [&](const Entry& entry) { return observe(entry) && entry.observer == observer; });
    };
    for (const Entry& each : observers)
        if (isStillThere(each.observer)) each.handler();
}

}  // namespace selvio
