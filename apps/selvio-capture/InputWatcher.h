// What reaches the program from outside while it captures: interrupts and the Enter key.
#pragma once

#include <SelvioFacialCapture/base/Queue.h>

#include <functional>
#include <memory>
#include <thread>

namespace selvio::app {

/// Keeps SIGINT, SIGTERM and SIGHUP from ending the process, and SIGPIPE from being sent. Call it before any thread is
/// started: threads inherit it.
void blockInterrupts();

/// Waits for interrupts and, if wanted, lines on standard input, on a thread of its own, and answers each with a block
/// on `queue`.
class InputWatcher {
public:
    InputWatcher(std::shared_ptr<Queue> queue, std::function<void()> interrupted, std::function<void()> entered);
    InputWatcher(const InputWatcher&) = delete;
    InputWatcher& operator=(const InputWatcher&) = delete;
    /// Joins the thread; blocks already submitted may still run.
    ~InputWatcher();

private:
    void watch(bool standardInput);

    const std::shared_ptr<Queue> queue_;
    const std::function<void()> interrupted_;
    const std::function<void()> entered_;  // empty: standard input is left alone
    int signals_ = -1;
    int end_ = -1;
    std::thread thread_;
};

}  // namespace selvio::app
