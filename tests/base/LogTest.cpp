#include <SelvioFacialCapture/base/Log.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace selvio {
namespace {

TEST(Log, ASinkMayLogAndBeReplacedFromWithin) {
    std::vector<std::string> first;
    std::vector<std::string> second;
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

}  // namespace
}  // namespace selvio
