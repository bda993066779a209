// What the devices, sessions and outputs of one simulated capture system share.
#pragma once

#include <SelvioFacialCapture/simulated/SimulatedCaptureSystem.h>

#include <atomic>
#include <map>
#include <mutex>

namespace selvio {

struct SimulatedControl {
    SimulatedControl(std::shared_ptr<SimulatedScene> theScene, SimulatedCaptureOptions theOptions)
        : scene(std::move(theScene)), options(std::move(theOptions)), pool(PixelBufferPool::create()) {}

    const std::shared_ptr<SimulatedScene> scene;
    const SimulatedCaptureOptions options;
    const std::shared_ptr<PixelBufferPool> pool;

    [[nodiscard]] SimulatedFaults faults() const {
        const std::lock_guard lock(mutex_);
        return faults_;
    }
    void setFaults(SimulatedFaults faults) {
        const std::lock_guard lock(mutex_);
        faults_ = std::move(faults);
    }

private:
    mutable std::mutex mutex_;
    SimulatedFaults faults_;  // guarded by mutex_
};

}  // namespace selvio
