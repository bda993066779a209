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
    /// Deliveries not yet begun for the delegate before are forgotten, and none is running on return unless the call comes from its queue.
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
