#include <SelvioFacialCapture/base/ConcurrentQueue.h>
#include <SelvioFacialCapture/base/MainQueue.h>
#include <SelvioFacialCapture/base/SerialQueue.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <numeric>
#include <thread>
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

TEST(ConcurrentQueue, RunsEverythingBeforeItGoes) {
    std::atomic<int> count{0};
    {
        ConcurrentQueue queue("test", 3);
        for (int i = 0; i < 500; ++i) queue.async([&] { ++count; });
        queue.asyncAfter(std::chrono::hours(1), [&] { ++count; });
    }
    EXPECT_EQ(count, 501);
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

}  // namespace
}  // namespace selvio
