#include <SelvioFacialCapture/platform/Platform.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using namespace selvio;

TEST(DefaultPlatform, IsThePortableOneUntilAnotherIsSet) {
    const auto first = defaultPlatform().notificationCenter;
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(defaultPlatform().notificationCenter, first);
    setDefaultPlatform(makePortablePlatform());
    EXPECT_NE(defaultPlatform().notificationCenter, first);
}

TEST(NotificationCenter, CallsWhoIsThereInOrderAndMayBeCalledBack) {
    using enum ApplicationNotification;
    NotificationCenter center;
    std::vector<int> calls;
    auto one = std::make_shared<int>(1);
    const auto two = std::make_shared<int>(2);
    std::shared_ptr<void> held(&center, [&](void*) {
        center.removeObserver(nullptr);  // what a handler holds may call the centre when it goes
        calls.push_back(0);
    });
    center.addObserver(one, DidBecomeActive, [&, held = std::move(held)] { calls.push_back(1); });
    center.addObserver(two, WillTerminate, [&] { calls.push_back(-2); });
    center.addObserver(two, DidBecomeActive, [&] {
        calls.push_back(2);
        center.removeObserver(two.get());
    });
    center.post(DidBecomeActive);
    one.reset();
    center.post(DidBecomeActive);
    center.post(WillTerminate);
    center.addObserver(one = std::make_shared<int>(3), WillTerminate, [&] { calls.push_back(3); });
    center.post(WillTerminate);
    center.addObserver(two, WillResignActive, [&] { center.removeObserver(one.get()); });
    center.addObserver(one, WillResignActive, [&] { calls.push_back(-3); });
    center.post(WillResignActive);
    EXPECT_EQ(calls, (std::vector{1, 2, 0, 3})) << "whoever has gone or was removed is forgotten";
}

}  // namespace
