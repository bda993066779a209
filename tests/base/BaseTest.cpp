#include <SelvioFacialCapture/base/ConcurrentQueue.h>
#include <SelvioFacialCapture/base/Log.h>
#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/base/MemberMutex.h>
#include <SelvioFacialCapture/base/SerialQueue.h>
#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <future>
#include <numeric>
#include <thread>

#include "support/ManualClock.h"

namespace selvio {
namespace {

using namespace std::chrono_literals;

/// Hangs if the block is held up.
void runOne(Queue& queue, std::chrono::nanoseconds delay = {}) {
    std::promise<bool> ran;
    const auto block = [&] { ran.set_value(queue.isCurrent()); };
    delay > 0s ? queue.asyncAfter(delay, block) : queue.async(block);
    EXPECT_TRUE(ran.get_future().get());
}

const std::function<std::unique_ptr<Queue>()> kQueuesOfOneThread[] = {
    [] { return std::make_unique<SerialQueue>("test"); },
    [] { return std::make_unique<ConcurrentQueue>("test", 1); },
};

TEST(Log, ASinkMayLogAndBeReplacedFromWithin) {
    std::vector<std::string> first, second;
    const LogSink before = setLogSink([&](std::string_view message) {
        first.emplace_back(message);
        setLogSink([&](std::string_view later) { second.emplace_back(later); });
        log("logged by the sink");
        EXPECT_EQ(first.back(), "one") << "what it holds lives as long as the call";
    });
    log("one");
    log("two");
    EXPECT_EQ(first, std::vector<std::string>{"one"});
    EXPECT_EQ(second, (std::vector<std::string>{"logged by the sink", "two"}));
    testing::internal::CaptureStderr();
    setLogSink({})("to the one before");
    log("nobody listens");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "nobody listens\n");
    EXPECT_EQ(second.back(), "to the one before");
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

TEST(SystemClock, TellsTheTimeSinceTheReferenceDateAndOneThatNeverGoesBack) {
    const SystemClock clock;
    std::tm date{};
    date.tm_year = 101;
    date.tm_mday = 1;
    EXPECT_NEAR(clock.secondsSinceReferenceDate(), std::difftime(std::time(nullptr), ::timegm(&date)), 2.0);
    const auto before = std::chrono::steady_clock::now().time_since_epoch();
    const auto now = clock.monotonicTime();
    EXPECT_LE(before, now);
    EXPECT_LE(now, std::chrono::steady_clock::now().time_since_epoch());
}

TEST(Queues, RunBlocksInOrderAndLastTheDelayedOnes) {
    for (const auto& make : kQueuesOfOneThread) {
        std::vector<std::vector<int>> order(3);  // of each thread
        {
            const auto queue = make();
            EXPECT_EQ(queue->label(), "test");
            EXPECT_FALSE(queue->isCurrent());
            queue->asyncAfter(2h, [&] { order[0].push_back(101); });
            queue->asyncAfter(1h, [&] { order[0].push_back(100); });
            std::vector<std::thread> threads;
            for (auto& mine : order) {
                threads.emplace_back([&] {
                    for (int i = 0; i < 100; ++i) queue->async([&, i] { mine.push_back(i); });
                });
            }
            for (std::thread& thread : threads) thread.join();
        }  // destruction runs all that was submitted
        std::vector<int> expected(102);
        std::iota(expected.begin(), expected.end(), 0);
        EXPECT_EQ(order[0], expected);
        expected.resize(100);
        EXPECT_EQ(order[1], expected);
        EXPECT_EQ(order[2], expected);
    }
}

TEST(Queues, RunDelayedBlocksWhileTheyLiveAndMayBeDestroyedFromTheirOwn) {
    for (const auto& make : kQueuesOfOneThread) {
        std::promise<void> last;
        auto queue = make();
        runOne(*queue, 1ms);
        Queue* const raw = queue.get();
        raw->async([&, owned = std::make_shared<std::unique_ptr<Queue>>(std::move(queue))] {
            raw->async([&] { last.set_value(); });
            owned->reset();
        });
        last.get_future().wait();  // a lost block would hang here
    }
}

TEST(SerialQueue, Drains) {
    SerialQueue queue("test");
    queue.drain();  // waits for a block now
    std::atomic<bool> done{false};
    queue.async([&] {
        for (int i = 0; i < 20; ++i) std::this_thread::yield();
        done = true;
    });
    queue.drain();
    EXPECT_TRUE(done);
}

TEST(Queues, LetGoOfABlockAsAPartOfIt) {
    MainQueue main;
    SerialQueue serial("serial");
    ConcurrentQueue concurrent("concurrent", 1);
    for (Queue* const queue : std::initializer_list<Queue*>{&main, &serial, &concurrent}) {
        std::promise<bool> gone;
        std::shared_ptr<void> held(queue, [&](void*) {
            const bool isCurrent = queue->isCurrent();
            queue->async([&gone, isCurrent] { gone.set_value(isCurrent); });
        });
        queue->async([held = std::move(held)] {});
        main.drain();
        EXPECT_TRUE(gone.get_future().get()) << queue->label();  // a lock held meanwhile would hang here
    }
}

TEST(ConcurrentQueue, StuckBlocksHoldUpNoOtherBelowTheBound) {
    std::promise<void> gate, started;
    const auto opened = gate.get_future().share();
    ConcurrentQueue queue("test", 4, 1h);
    queue.async([&] {
        started.set_value();
        opened.wait();
    });
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
    std::vector<int> order;
    int wakeUps = 0;
    queue.setWakeUpHook([&] { ++wakeUps; });
    queue.asyncAfter(100ms, [&] { order.push_back(2); });
    EXPECT_EQ(queue.timeUntilNextBlock(), 100ms);
    queue.async([&] {
        order.push_back(0);
        EXPECT_TRUE(queue.isCurrent());
        queue.async([&] { order.push_back(1); });
    });
    EXPECT_EQ(queue.drain(), 2U);
    clock->advance(99ms);
    EXPECT_EQ(queue.drain(), 0U);
    clock->advance(1ms);
    EXPECT_EQ(queue.drain(), 1U);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(wakeUps, 3);
    EXPECT_FALSE(queue.isCurrent());
}

TEST(MainQueue, RunsUntilItQuitsAndWaitsForBlocksOfOtherThreads) {
    MainQueue queue;
    EXPECT_EQ(queue.timeUntilNextBlock(), std::nullopt);
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
}

TEST(MainQueue, ItsClockAndItsHookMayCallEveryOperation) {
    const auto clock = std::make_shared<ManualClock>();
    MainQueue queue(clock);
    int calls = 0;
    bool calling = false;
    const auto everyOperation = [&] {
        if (calls == 10 || std::exchange(calling, true)) return;
        ++calls;
        (void)queue.isCurrent();
        (void)queue.timeUntilNextBlock();
        queue.async([] {});
        queue.asyncAfter(1h, [] {});
        queue.setWakeUpHook({});
        calling = false;
    };
    clock->callBack = everyOperation;
    queue.setWakeUpHook(everyOperation);
    queue.async([] {});
    EXPECT_EQ(calls, 1) << "by the hook";
    queue.asyncAfter({}, [&] { queue.quit(); });
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(queue.timeUntilNextBlock(), 0s);
    EXPECT_EQ(calls, 3);
    queue.run();
    queue.drain();
    EXPECT_EQ(calls, 10);
}

}  // namespace
}  // namespace selvio
