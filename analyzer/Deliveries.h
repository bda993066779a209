// What waits for the main queue.
#pragma once

#include <algorithm>
#include <list>
#include <utility>

namespace selvio {

/// Which of the deliveries of one step in one run are kept while they wait.
enum class DeliveryKind { Newest, First, Each };

/// An ordered list of steps that does not grow with the frames when the main queue is late. Guarded by its owner.
template <typename Frame, typename Step>
class Deliveries {
public:
    struct Delivery {
        Step step;
        Frame frame;
    };

    /// Returns true if the list is longer than before: a block must be submitted that takes one step from it. A
    /// delivery that is replaced is moved to `replaced`, for its frame to be destroyed outside of the owner's lock.
    bool add(DeliveryKind kind, Delivery delivery, std::list<Delivery>& replaced) {
        const auto same = std::find_if(waiting_.begin(), waiting_.end(), [&](const Delivery& other) {
            return kind != DeliveryKind::Each && other.step == delivery.step && other.frame.run == delivery.frame.run;
        });
        const bool found = same != waiting_.end();
        if (found && kind == DeliveryKind::First) return false;
        if (found) replaced.splice(replaced.end(), waiting_, same);
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
