// What waits for the main queue.
#pragma once

#include <algorithm>
#include <list>
#include <utility>

namespace selvio {

enum class DeliveryKind {
    Report,              ///< what a frame's statuses are: only the newest waits
    Countdown,           ///< the countdown's announcement: only the newest waits
    AutomaticSelection,  ///< only the first of a run waits
    Once,                ///< each waits
};

/// An ordered list of steps that does not grow with the frames when the main queue is late. Guarded by its owner.
template <typename Frame, typename Step>
class Deliveries {
public:
    struct Delivery {
        DeliveryKind kind;
        Step step;
        Frame frame;
    };

    /// Returns true if the list is longer than before: a block must be submitted that takes one step from it.
    bool add(Delivery delivery) {
        const auto same = std::find_if(waiting_.begin(), waiting_.end(), [&](const Delivery& other) {
            return other.kind == delivery.kind &&
                   (delivery.kind == DeliveryKind::Report || delivery.kind == DeliveryKind::Countdown ||
                    (delivery.kind == DeliveryKind::AutomaticSelection && other.frame.run == delivery.frame.run));
        });
        const bool found = same != waiting_.end();
        if (found && delivery.kind == DeliveryKind::AutomaticSelection) return false;
        if (found) waiting_.erase(same);
        waiting_.push_back(std::move(delivery));
        return !found;
    }

    /// A list of one, or of none.
    std::list<Delivery> takeFirst() {
        std::list<Delivery> first;
        if (!waiting_.empty()) first.splice(first.begin(), waiting_, waiting_.begin());
        return first;
    }

    void dropLast() { waiting_.pop_back(); }

private:
    std::list<Delivery> waiting_;
};

}  // namespace selvio
