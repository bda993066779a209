#include <SelvioFacialCapture/base/MemberMutex.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>

namespace selvio {
namespace {

TEST(MemberMutex, WhatIsReplacedEndsOutsideOfTheLock) {
    MemberMutex mutex;
    const auto isFree = [&] { return std::unique_lock(mutex, std::try_to_lock).owns_lock(); };
    bool wasFree = false;
    std::shared_ptr<void> member(&mutex, [&](void*) { wasFree = std::async(std::launch::async, isFree).get(); });
    mutex.set(member, nullptr);
    EXPECT_EQ(mutex.get(member), nullptr);
    EXPECT_TRUE(wasFree);
}

}  // namespace
}  // namespace selvio
