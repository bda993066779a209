#include <SelvioFacialCapture/platform/Platform.h>
#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

namespace selvio {
namespace {

TEST(DefaultPlatform, IsThePortableOneUntilAnotherIsSet) {
    const auto first = defaultPlatform();
    EXPECT_NE(first.mainQueue, nullptr);
    EXPECT_EQ(first.captureSystem, nullptr);
    EXPECT_EQ(defaultPlatform().notificationCenter, first.notificationCenter);
    const Platform other = makePortablePlatform();
    setDefaultPlatform(other);
    EXPECT_EQ(defaultPlatform().notificationCenter, other.notificationCenter);
}

TEST(NotificationCenter, CallsWhoIsThereInOrderAndMayBeCalledBack) {
    using enum ApplicationNotification;
    NotificationCenter center;
    std::vector<int> calls;
    auto one = std::make_shared<int>(1);
    const auto two = std::make_shared<int>(2);
    bool handlerIsGone = false;
    std::shared_ptr<void> held(&center, [&](void*) {
        center.removeObserver(nullptr);  // what a handler holds may call the centre when it goes
        handlerIsGone = true;
    });
    center.addObserver(one, DidBecomeActive, [&, held = std::move(held)] { calls.push_back(1); });
    center.addObserver(two, WillTerminate, [&] { calls.push_back(-2); });
    center.addObserver(two, DidBecomeActive, [&] {
        calls.push_back(2);
        center.removeObserver(two.get());
    });
    center.post(DidBecomeActive);
    EXPECT_EQ(calls, (std::vector<int>{1, 2}));
    one.reset();
    center.post(DidBecomeActive);
    center.post(WillTerminate);
    EXPECT_EQ(calls.size(), 2U) << "one has gone, the other was removed";
    const auto three = std::make_shared<int>(3);
    center.addObserver(three, WillTerminate, [&] { calls.push_back(3); });
    center.post(WillTerminate);
    EXPECT_EQ(calls.back(), 3);
    EXPECT_TRUE(handlerIsGone) << "whoever has gone is forgotten";
}

}  // namespace
}  // namespace selvio
