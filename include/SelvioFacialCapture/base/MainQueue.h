// The queue that the host's own loop drains.
#pragma once

#include <SelvioFacialCapture/base/Clock.h>
#include <SelvioFacialCapture/base/Export.h>
#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/base/Queue.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <thread>

namespace selvio {

/// The main queue: its blocks run where the host calls `run` or `drain`, always one at a time.
/// A host without a loop of its own calls `run`; a host with one (GLib, Qt, SDL) sets a wake-up hook that makes its
/// loop call `drain`. With GLib:
///
///     void drainOnLoop() {
///         static guint timer = 0;  // the one for what is due later; only the loop's thread comes here
///         if (timer != 0) g_source_remove(std::exchange(timer, 0));
///         const auto queue = selvio::MainQueue::shared();
///         queue->drain();
///         if (const auto wait = queue->timeUntilNextBlock()) {
///             const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(*wait).count();
///             const auto due = [](gpointer) { timer = 0, drainOnLoop(); };
///             timer = g_timeout_add_once(static_cast<guint>(milliseconds), due, nullptr);
///         }
///     }
///     selvio::MainQueue::shared()->setWakeUpHook(
///         [] { g_idle_add_once([](gpointer) { drainOnLoop(); }, nullptr); });
class SELVIO_EXPORT MainQueue final : public Queue {
public:
    explicit MainQueue(std::shared_ptr<const Clock> clock = std::make_shared<SystemClock>());

    /// The process's main queue, made on first use.
    static const std::shared_ptr<MainQueue>& shared();

    void async(Block block) override;
    void asyncAfter(std::chrono::nanoseconds delay, Block block) override;
    [[nodiscard]] bool isCurrent() const override;
    [[nodiscard]] const std::string& label() const override;

    /// Runs the blocks that are due now, those submitted meanwhile included, and returns how many ran. Only one thread
    /// may drain at a time.
    std::size_t drain();
    /// Drains until `quit` is called (one `quit` ends one `run`), waiting in between without using the processor.
    void run();
    /// Makes `run` return once the block that is running has ended. Any thread.
    void quit();
    /// How long a loop may wait before it must drain again: zero when a block is due, nothing when no block waits.
    [[nodiscard]] std::optional<std::chrono::nanoseconds> timeUntilNextBlock() const;
    /// `hook` is called, on the submitting thread, after every submission; an empty one removes it. Neither it nor the
    /// clock is called with a lock held, so both may call any operation of the queue.
    void setWakeUpHook(std::function<void()> hook);

private:
    void wakeUp();
    bool runNextBlock();

    const std::shared_ptr<const Clock> clock_;
    mutable MemberMutex mutex_;
    std::condition_variable changed_;
    std::deque<Block> ready_;                                  // guarded by mutex_
    std::multimap<std::chrono::nanoseconds, Block> delayed_;   // guarded by mutex_; keyed by the clock's monotonic time
    std::shared_ptr<const std::function<void()>> wakeUpHook_;  // guarded by mutex_
    bool quit_ = false;                                        // guarded by mutex_
    std::thread::id runner_;                                   // guarded by mutex_; the thread inside a block, if any
};

}  // namespace selvio
