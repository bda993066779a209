#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/base/SerialQueue.h>
#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <future>
#include <numeric>
#include <thread>
#include <utility>
#include <vector>

#include "support/ManualClock.h"

namespace selvio {
namespace {

TEST(SerialQueue, RunsBlocksInOrderFromSeveralThreads) {
    std::vector<std::vector<int>> order(3);  // of each thread
    {
        SerialQueue queue("test");
        std::vector<std::thread> threads;
        for (auto& mine : order) {
            threads.emplace_back([&] {
                for (int i = 0; i < 100; ++i) {
                    queue.async([&, i] { mine.push_back(queue.isCurrent() ? i : -1); });
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
    }  // destruction runs all that was submitted
    std::vector<int> expected(100);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(order, std::vector(3, expected));
}

TEST(SerialQueue, MayBeDestroyedFromItsOwnBlock) {
    std::promise<void> last;
    auto queue = std::make_unique<SerialQueue>("test");
    SerialQueue* const raw = queue.get();
    raw->async([&, owned = std::make_shared<std::unique_ptr<SerialQueue>>(std::move(queue))] {
        raw->async([&] { last.set_value(); });
        owned->reset();
    });
    last.get_future().wait();  // a lost block would hang here
}

TEST(SerialQueue, DelayedBlocksRunAfterReadyOnesAndAtDestruction) {
    std::vector<int> order;
    {
        SerialQueue queue("test");
        queue.asyncAfter(std::chrono::hours(2), [&] { order.push_back(3); });
        queue.asyncAfter(std::chrono::hours(1), [&] { order.push_back(2); });
        queue.async([&] { order.push_back(1); });
    }
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(SerialQueue, RunsDelayedBlocksWhileItLivesAndDrains) {
    SerialQueue queue("label");
    EXPECT_EQ(queue.label(), "label");
    EXPECT_FALSE(queue.isCurrent());
    queue.drain();  // waits for a block now
    std::promise<void> ran;
    queue.asyncAfter(std::chrono::milliseconds(1), [&] { ran.set_value(); });
    ran.get_future().wait();  // a block that is forgotten would hang here
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
    for (Queue* const queue : std::initializer_list<Queue*>{&main, &serial}) {
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

TEST(MainQueue, DrainsWhatIsDueAndSaysWhenToComeBack) {
    const auto clock = std::make_shared<ManualClock>();
    MainQueue queue(clock);
    std::vector<int> order;
    int wakeUps = 0;
    queue.setWakeUpHook([&] { ++wakeUps; });
    queue.asyncAfter(std::chrono::milliseconds(100), [&] { order.push_back(2); });
    EXPECT_EQ(queue.timeUntilNextBlock(), std::chrono::milliseconds(100));
    queue.async([&] {
        order.push_back(0);
        EXPECT_TRUE(queue.isCurrent());
        queue.async([&] { order.push_back(1); });
    });
    EXPECT_EQ(queue.drain(), 2U);
    clock->advance(std::chrono::milliseconds(99));
    EXPECT_EQ(queue.drain(), 0U);
    clock->advance(std::chrono::milliseconds(1));
    EXPECT_EQ(queue.drain(), 1U);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(wakeUps, 3);
    EXPECT_FALSE(queue.isCurrent());
}

TEST(MainQueue, RunsUntilItQuitsAndWaitsForBlocksOfOtherThreads) {
    MainQueue queue;
    EXPECT_EQ(queue.timeUntilNextBlock(), std::nullopt);
    int ran = 0;
    for (const auto delay : {std::chrono::milliseconds(0), std::chrono::milliseconds(1)}) {
        std::thread other([&] {
            queue.async([&] { ++ran; });
            queue.asyncAfter(delay, [&] {
                ++ran;
                queue.quit();
            });
        });
        queue.run();  // would not return without the second block
        other.join();
    }
    EXPECT_EQ(ran, 4) << "one quit ends one run";
}

TEST(MainQueue, ItsClockAndItsHookMayCallEveryOperation) {
    MainQueue* self = nullptr;
    int calls = 0;
    bool calling = false;
    const auto everyOperation = [&] {
        if (self == nullptr || calls == 10 || std::exchange(calling, true)) return;
        ++calls;
        (void)self->isCurrent();
        (void)self->timeUntilNextBlock();
        self->async([] {});
        self->asyncAfter(std::chrono::hours(1), [] {});
        self->setWakeUpHook({});
        calling = false;
    };
    MainQueue queue(std::make_shared<CallingClock>(everyOperation));
    self = &queue;
    queue.setWakeUpHook(everyOperation);
    queue.async([] {});
    EXPECT_EQ(calls, 1) << "by the hook";
    queue.asyncAfter(std::chrono::nanoseconds(1), [&] { queue.quit(); });
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(queue.timeUntilNextBlock(), std::chrono::nanoseconds(0));
    EXPECT_EQ(calls, 3);
    queue.run();
    queue.drain();
    EXPECT_EQ(calls, 10);
}

}  // namespace
}  // namespace selvio
