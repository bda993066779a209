#include <SelvioFacialCapture/base/MainQueue.h>

#include <atomic>
#include <chrono>

#include "c/Support.h"

using namespace selvio::c;
using selvio::MainQueue;

namespace {

constexpr double kLongestDelay = 1'000'000;  // seconds

struct WakeUp {
    void* user = nullptr;
    void (*wake)(void* user) = nullptr;
};

/// Held while a thread runs the main queue, which serves one thread at a time.
class Running {
public:
    Running() {
        if (isRunning.exchange(true)) throw Failure("the main queue is being run already");
    }
    ~Running() { isRunning = false; }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

private:
    static inline std::atomic<bool> isRunning{false};
};

}  // namespace

size_t selvio_main_queue_drain(char** error) {
    return guarded(error, [] {
        const Running running;
        return MainQueue::shared()->drain();
    });
}

bool selvio_main_queue_run(char** error) {
    return guarded(error, [] {
        const Running running;
        MainQueue::shared()->run();
    });
}

void selvio_main_queue_quit() {
    guarded(nullptr, [] { MainQueue::shared()->quit(); });
}

double selvio_main_queue_seconds_until_next() {
    return guardedOr(-1.0, nullptr, [] {
        const auto next = MainQueue::shared()->timeUntilNextBlock();
        return next ? std::chrono::duration<double>(*next).count() : -1.0;
    });
}

bool selvio_main_queue_call_after(double seconds, void (*callback)(void* user), void* user, char** error) {
    return guarded(error, [&] {
        if (!(seconds >= 0 && seconds <= kLongestDelay)) throw Failure("a delay is 0 to 1000000 seconds");
        if (!callback) throw Failure("callback is NULL");
        const auto delay = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
        MainQueue::shared()->asyncAfter(delay, [callback, user] { callback(user); });
    });
}

bool selvio_main_queue_set_wake_up(void (*callback)(void* user), void* user, char** error) {
    static Replaceable<WakeUp> inForce;
    return guarded(error, [&] {
        const WakeUp wakeUp{user, callback};
        inForce.replace(callback ? &wakeUp : nullptr, [](const Replaceable<WakeUp>::Shared& next) {
            MainQueue::shared()->setWakeUpHook(next ? [next] { next->call(&WakeUp::wake); } : std::function<void()>());
        });
    });
}
