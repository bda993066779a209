#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/linux/Sensors.h>

#include <platform/linux/sensors/IioGyroscope.h>

#include <gtest/gtest.h>

#include <atomic>
#include <map>

#include "support/ComesTrue.h"
#include "support/TemporaryDirectory.h"

namespace selvio {
namespace {

using Files = std::map<std::string, std::string>;

// A tree of files such as the kernel shows.
class IioTree : public ::testing::Test {
protected:
    void write(const std::string& device, const Files& files) {
        for (const auto& [name, text] : files) directory_.write(device + "/" + name, text + "\n");
    }
    const test::TemporaryDirectory directory_;
    const std::filesystem::path root_ = directory_.path();
    const Files raw_{{"in_anglvel_x_raw", "100"}, {"in_anglvel_y_raw", "-200"}, {"in_anglvel_z_raw", "0"}};
};

TEST_F(IioTree, ReadsRatesInRadiansPerSecond) {
    const std::pair<Files, std::optional<RotationRate>> cases[] = {
        {{{"in_anglvel_x_scale", "0.01"}, {"in_anglvel_y_scale", "0.02"}, {"in_anglvel_z_scale", "1"}}, {{1, -4, 0}}},
        {{{"in_anglvel_scale", "0.001"},
          {"in_anglvel_x_offset", "-300"},
          {"in_mount_matrix", "0, 1, 0; -1, 0, 0; 0, 0, 1"}},
         {{-0.2, 0.2, 0}}},
        {{{"in_anglvel_scale", "fast"}}, std::nullopt},
    };
    write("iio:device0", {{"in_accel_x_raw", "5"}});
    for (const auto& [files, expected] : cases) {
        std::filesystem::remove_all(root_ / "iio:device1");
        write("iio:device1", raw_);
        write("iio:device1", files);
        const auto gyroscope = IioGyroscope::find(root_);
        ASSERT_EQ(gyroscope.has_value(), expected.has_value());
        if (!gyroscope) continue;
        const auto rate = gyroscope->read().value();
        EXPECT_NEAR(rate.x, expected->x, 1e-9);
        EXPECT_NEAR(rate.y, expected->y, 1e-9);
        EXPECT_NEAR(rate.z, expected->z, 1e-9);
    }
    EXPECT_FALSE(IioGyroscope::find(root_ / "missing"));
    EXPECT_FALSE(parseMountMatrix("1, 0, 0; 0, 1, 0"));
}

TEST_F(IioTree, FeedsTheHandlerUntilStopped) {
    write("iio:device0", raw_);
    write("iio:device0", {{"in_anglvel_scale", "0.07"}});
    const auto queue = std::make_shared<SerialQueue>("motion");
    const auto manager = makeIioMotionManager({.iioDirectory = root_, .busAddress = {}});
    std::atomic<int> readings = 0;
    std::atomic<int> errors = 0;
    manager->setDeviceMotionUpdateInterval(std::chrono::milliseconds(1));
    manager->startDeviceMotionUpdates(queue, [&](const DeviceMotion& motion, const std::optional<Error>& error) {
        EXPECT_TRUE(queue->isCurrent());
        EXPECT_TRUE(error || std::abs(motion.rotationRate.x - 7) < 1e-9);
        ++(error ? errors : readings);
    });
    EXPECT_TRUE(test::comesTrue([&] { return readings >= 5; }));
    std::filesystem::remove(root_ / "iio:device0" / "in_anglvel_x_raw");
    EXPECT_TRUE(test::comesTrue([&] { return errors >= 2; }));
    manager->stopDeviceMotionUpdates();
    queue->drain();
    const int total = readings + errors;
    queue->drain();
    EXPECT_EQ(readings + errors, total);
}

}  // namespace
}  // namespace selvio
