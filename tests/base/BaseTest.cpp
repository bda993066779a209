#include <SelvioFacialCapture/base/ConcurrentQueue.h>
#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/base/SerialQueue.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "support/ManualClock.h"

namespace {

using namespace selvio;

using namespace std::chrono_literals;
using Numbers = std::vector<int>;

/// Hangs if the block is held up.
void runOne(Queue& queue, std::chrono::nanoseconds delay = {}) {
    std::promise<bool> ran;
    const auto block = [&] { ran.set_value(queue.isCurrent()); };
    delay > 0s ? queue.asyncAfter(delay, block) : queue.async(block);
    EXPECT_TRUE(ran.get_future().get());
}

TEST(Log, ASinkMayLogAndBeReplacedFromWithin) {
    std::vector<std::string> lines;
    const LogSink second = [&](std::string_view message) { lines.push_back("second: " + std::string(message)); };
    const LogSink before = setLogSink([&, held = std::make_shared<int>()](std::string_view message) {
        const std::weak_ptr<int> lives = held;
        setLogSink(second);
        log("logged by the sink");
        lines.push_back((lives.expired() ? "gone: " : "first: ") + std::string(message));
    });
    log("one");
    testing::internal::CaptureStderr();
    setLogSink({})("to the one before");
    log("nobody listens");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "nobody listens\n");
    EXPECT_EQ(lines,
              (std::vector<std::string>{"second: logged by the sink", "first: one", "second: to the one before"}));
    EXPECT_FALSE(setLogSink(before));
}

TEST(MemberMutex, WhatIsReplacedEndsOutsideOfTheLock) {
    MemberMutex mutex;
    const auto isFree = [&] { return std::unique_lock(mutex, std::try_to_lock).owns_lock(); };
    bool wasFree = false;
    std::shared_ptr<void> member(&mutex, [&](void*) { wasFree = std::async(std::launch::async, isFree).get(); });
    mutex.set(member, nullptr);
    EXPECT_EQ(mutex.get(member), nullptr);
    EXPECT_TRUE(wasFree);
}

TEST(SystemClock, TellsTheTimeSinceTheReferenceDate) {
    const std::chrono::duration<double> right = std::chrono::system_clock::now() - std::chrono::sys_days(2001y / 1 / 1);
    EXPECT_NEAR(SystemClock().secondsSinceReferenceDate(), right.count(), 2.0);
}

TEST(Queues, RunBlocksInOrderAndAtTheirEndWhateverIsLeft) {
    for (int i = 0; i < 4; ++i) {
        Numbers order[3], expected;  // of each thread
        for (int n = 0; n < 100; ++n) expected.push_back(n);
        std::unique_ptr<Queue> queue = std::make_unique<SerialQueue>("serial");
        if (i % 2 == 1) queue = std::make_unique<ConcurrentQueue>("concurrent", 1);
        Queue* const raw = queue.get();
        EXPECT_FALSE(raw->isCurrent());
        runOne(*raw, 1ms);
        std::promise<void> last;
        raw->asyncAfter(2h, [&] { order[0].push_back(102), last.set_value(); });
        raw->asyncAfter(1h, [&] { order[0].push_back(101); });
        std::vector<std::thread> threads;
        for (auto& mine : order) {
            threads.emplace_back([&] {
                for (const int n : expected) raw->async([&mine, n] { mine.push_back(n); });
            });
        }
        for (std::thread& thread : threads) thread.join();
        const auto end = [&] {
            raw->async([&] { order[0].push_back(100); });
            queue.reset();
        };
        i < 2 ? end() : raw->async(end);  // from another thread, which waits for all that was submitted, or its own
        if (i >= 2) last.get_future().wait();
        EXPECT_TRUE(order[1] == expected && order[2] == expected);
        expected.insert(expected.end(), {100, 101, 102});
        EXPECT_EQ(order[0], expected);
    }
}

TEST(Queues, DestroyABlockAsAPartOfIt) {
    MainQueue main;
    SerialQueue serial("serial");
    ConcurrentQueue concurrent("concurrent", 1);
    for (Queue* const queue : std::initializer_list<Queue*>{&main, &serial, &concurrent}) {
        std::promise<bool> gone;
        std::shared_ptr<void> held(queue, [&](void*) {
            const bool isCurrent = queue->isCurrent();
            queue->async([&gone, isCurrent] { gone.set_value(isCurrent); });
        });
        // Larger than what some libraries keep in the function itself, and copy where they should move.
        queue->async([held = std::move(held), large = std::string()] {});
        main.drain();
        EXPECT_TRUE(gone.get_future().get()) << queue->label();  // a lock held meanwhile would hang here
    }
}

TEST(ConcurrentQueue, StuckBlocksHoldUpNoOtherBelowTheBound) {
    std::promise<void> gate, started;
    const auto opened = gate.get_future().share();
    ConcurrentQueue queue("test", 4, 1h);
    queue.async([&] { started.set_value(), opened.wait(); });
    started.get_future().wait();
    runOne(queue);
    std::atomic<int> count{0};
    for (int i = 0; i < 20; ++i) queue.async([&] { opened.wait(), ++count; });
    EXPECT_EQ(queue.threadCount(), 4U);
    gate.set_value();
    while (count < 20) std::this_thread::yield();
    runOne(queue);
    EXPECT_EQ(queue.threadCount(), 4U) << "idle threads are used again";
}

TEST(ConcurrentQueue, IdleThreadsEndAndOthersFollow) {
    ConcurrentQueue queue("test", 4, 1ms);
    for (int round = 0; round < 3; ++round) {
        runOne(queue);
        while (queue.threadCount() > 0) std::this_thread::yield();  // would hang here
    }
}

TEST(MainQueue, DrainsWhatIsDueAndSaysWhenToComeBack) {
    const auto clock = std::make_shared<ManualClock>();
    MainQueue queue(clock);
    Numbers order;
    int wakeUps = 0;
    queue.setWakeUpHook([&] { ++wakeUps; });
    EXPECT_EQ(queue.timeUntilNextBlock(), std::nullopt);
    queue.asyncAfter(100ms, [&] { order.push_back(2); });
    EXPECT_EQ(queue.timeUntilNextBlock(), 100ms);
    queue.async([&] {
        order.push_back(queue.isCurrent() ? 0 : -1);
        queue.async([&] { order.push_back(1); });
    });
    EXPECT_EQ(queue.timeUntilNextBlock(), 0s);
    EXPECT_EQ(queue.drain(), 2U);
    clock->advance(99ms);
    EXPECT_EQ(queue.drain(), 0U);
    clock->advance(1ms);
    EXPECT_EQ(queue.drain(), 1U);
    EXPECT_EQ(order, (Numbers{0, 1, 2}));
    EXPECT_EQ(wakeUps, 3);
    EXPECT_FALSE(queue.isCurrent());
}

TEST(MainQueue, RunsUntilItQuitsAndWaitsForBlocksOfOtherThreads) {
    MainQueue queue;
    int ran = 0;
    for (const auto delay : {0ms, 1ms}) {
        std::thread other([&] {
            queue.async([&] { ++ran; });
            queue.asyncAfter(delay, [&] { ++ran, queue.quit(); });
        });
        queue.run();  // would not return without the second block
        other.join();
    }
    EXPECT_EQ(ran, 4) << "one quit ends one run";
    queue.async([&] {
        queue.quit();
        queue.async([&] { ++ran; });
    });
    queue.run();
    EXPECT_EQ(ran, 4) << "what comes after a quit waits";
    EXPECT_EQ(queue.drain(), 1U);
    std::thread other([&] {
        runOne(queue);
        std::this_thread::sleep_for(5ms);  // mostly enough for the queue to wait
        queue.quit();
    });
    queue.run();  // would not return if that woke nobody
    other.join();
}

TEST(MainQueue, ItsClockAndItsHookMayCallEveryOperation) {
    const auto clock = std::make_shared<ManualClock>();
    MainQueue queue(clock);
    int calls = 0;
    clock->callBack = [&] {
        if (++calls > 10) return;
        (void)queue.isCurrent(), (void)queue.timeUntilNextBlock();
        queue.async([] {});
        queue.asyncAfter(1h, [] {});
        queue.setWakeUpHook({});
    };
    queue.setWakeUpHook([&] { (void)clock->monotonicTime(); });
    queue.async([] {});  // a lock held during the hook would hang here
    EXPECT_EQ(calls, 1);
    queue.asyncAfter({}, [&] { queue.quit(); });
    EXPECT_EQ(queue.timeUntilNextBlock(), 0s);
    queue.run();
    queue.drain();
    EXPECT_GT(calls, 10);
}

}  // namespace
