// What the simulated camera, motion sensor and smile detector look at together: one script, running in one time.
#pragma once

#include <SelvioFacialCapture/base/Clock.h>
#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/simulated/SimulatedFrames.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>

namespace selvio {

/// The script's time stands at 0 until `begin`, then runs with the clock, unless it is set by hand. Any thread.
class SELVIO_EXPORT SimulatedScene {
public:
    /// Neither may be null.
    SimulatedScene(std::shared_ptr<const SimulatedFrames> frames, std::shared_ptr<const Clock> clock);

    [[nodiscard]] const SimulatedFrames& frames() const { return *frames_; }
    [[nodiscard]] const std::shared_ptr<const Clock>& clock() const { return clock_; }

    /// Starts the script now, unless it has started, and returns `clockTime()`. The first capture session that runs and
    /// the first motion manager that starts call it.
    std::chrono::nanoseconds begin();
    /// Starts the script anew, now.
    void restart();
    /// Stops the script's time at this value until `restart` or the next call. For a camera with manual pacing: a paced
    /// one continues with the clock.
    void setTime(std::chrono::nanoseconds time);
    /// The script's time.
    [[nodiscard]] std::chrono::nanoseconds time() const;
    /// The script's time on the clock's scale: the clock itself unless the time was set by hand.
    [[nodiscard]] std::chrono::nanoseconds clockTime() const;
    /// The script's time at a time of the clock.
    [[nodiscard]] std::chrono::nanoseconds timeAt(std::chrono::nanoseconds clockTime) const;
    [[nodiscard]] MotionState state() const { return frames_->script().stateAt(time()); }

private:
    [[nodiscard]] std::chrono::nanoseconds clockTimeLocked() const;

    const std::shared_ptr<const SimulatedFrames> frames_;
    const std::shared_ptr<const Clock> clock_;
    mutable std::mutex mutex_;
    std::optional<std::chrono::nanoseconds> origin_;   // guarded by mutex_
    std::optional<std::chrono::nanoseconds> setTime_;  // guarded by mutex_
};

}  // namespace selvio
