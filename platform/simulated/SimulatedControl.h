// What the devices, sessions and outputs of one simulated capture system share.
#pragma once

#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/simulated/SimulatedCaptureSystem.h>

namespace selvio {

struct SimulatedControl {
    SimulatedControl(std::shared_ptr<SimulatedScene> theScene, SimulatedCaptureOptions theOptions)
        : scene(std::move(theScene)), options(std::move(theOptions)), pool(PixelBufferPool::create()) {}

    const std::shared_ptr<SimulatedScene> scene;
    const SimulatedCaptureOptions options;
    const std::shared_ptr<PixelBufferPool> pool;

    [[nodiscard]] SimulatedFaults faults() const { return mutex_.get(faults_); }
    void setFaults(SimulatedFaults faults) { mutex_.set(faults_, faults); }

private:
    mutable MemberMutex mutex_;
    SimulatedFaults faults_;  // guarded by mutex_
};

}  // namespace selvio
