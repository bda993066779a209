// Where an output hands its samples to a delegate on a queue.
#pragma once

#include <SelvioFacialCapture/base/Queue.h>
#include <SelvioFacialCapture/platform/Capture.h>

#include <functional>
#include <memory>

namespace selvio {

/// Any thread.
class DeliveryPoint {
public:
    using Delivery = std::function<void(CaptureOutputDelegate&)>;

    DeliveryPoint();
    /// Deliveries not yet begun for the delegate before are forgotten. One that is running is not waited for: the
    /// caller may hold a lock that the delegate is about to take.
    void set(std::weak_ptr<CaptureOutputDelegate> delegate, std::shared_ptr<Queue> queue);
    [[nodiscard]] bool isSet() const;
    /// Deliveries submitted for the present delegate that have not ended.
    [[nodiscard]] int pending() const;
    /// Nothing happens without a delegate and a queue.
    void submit(Delivery delivery);

private:
    struct State;
    const std::shared_ptr<State> state_;
};

}  // namespace selvio
