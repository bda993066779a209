#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/linux/Sensors.h>

#include <platform/linux/sensors/IioGyroscope.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <map>
#include <mutex>

#include "support/TemporaryDirectory.h"

namespace selvio {
namespace {

namespace fs = std::filesystem;

// A tree of files such as the kernel shows.
class IioTree : public ::testing::Test {
protected:
    void write(const std::string& device, const std::map<std::string, std::string>& files) {
        for (const auto& [name, text] : files) directory_.write((fs::path(device) / name).string(), text + "\n");
    }
    const test::TemporaryDirectory directory_;
    const fs::path root_ = directory_.path();
};

TEST_F(IioTree, ReadsRatesInRadiansPerSecond) {
    using Files = std::map<std::string, std::string>;
    struct Case {
        const char* what;
        Files files;
        std::optional<RotationRate> expected;
    };
    const Files raw{{"in_anglvel_x_raw", "100"}, {"in_anglvel_y_raw", "-200"}, {"in_anglvel_z_raw", "0"}};
    const auto with = [&](Files more) {
        more.insert(raw.begin(), raw.end());
        return more;
    };
    const Case cases[] = {
        {"one scale", with({{"in_anglvel_scale", "0.001"}}), RotationRate{0.1, -0.2, 0}},
        {"a scale for each axis", with({{"in_anglvel_x_scale", "0.01"}, {"in_anglvel_y_scale", "0.02"}, {"in_anglvel_z_scale", "1"}}),
         RotationRate{1, -4, 0}},
        {"an offset", with({{"in_anglvel_scale", "0.001"}, {"in_anglvel_x_offset", "-100"}}), RotationRate{0, -0.2, 0}},
        {"mounted crosswise", with({{"in_anglvel_scale", "0.001"}, {"in_mount_matrix", "0, 1, 0; -1, 0, 0; 0, 0, 1"}}), RotationRate{-0.2, -0.1, 0}},
        {"no scale", raw, std::nullopt},
        {"an axis is missing", {{"in_anglvel_x_raw", "1"}, {"in_anglvel_y_raw", "1"}, {"in_anglvel_scale", "1"}}, std::nullopt},
        {"not a number", with({{"in_anglvel_scale", "fast"}}), std::nullopt},
        {"an accelerometer", {{"in_accel_x_raw", "1"}, {"in_accel_scale", "1"}}, std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all(root_ / "iio:device1");
        write("iio:device0", {{"in_accel_x_raw", "5"}});
        write("iio:device1", c.files);
        const auto gyroscope = IioGyroscope::find(root_);
        ASSERT_EQ(gyroscope.has_value(), c.expected.has_value());
        if (!gyroscope) continue;
        const auto rate = gyroscope->read();
        ASSERT_TRUE(rate);
        EXPECT_NEAR(rate.value().x, c.expected->x, 1e-9);
        EXPECT_NEAR(rate.value().y, c.expected->y, 1e-9);
        EXPECT_NEAR(rate.value().z, c.expected->z, 1e-9);
    }
    EXPECT_FALSE(IioGyroscope::find(root_ / "missing"));
    EXPECT_FALSE(parseMountMatrix("1, 0, 0; 0, 1, 0"));
    EXPECT_FALSE(parseMountMatrix("1, 0, 0; 0, 1, 0; 0, 0, 1; 4"));
}

TEST_F(IioTree, FeedsTheHandlerUntilStopped) {
    write("iio:device0", {{"in_anglvel_x_raw", "7"}, {"in_anglvel_y_raw", "0"}, {"in_anglvel_z_raw", "0"}, {"in_anglvel_scale", "1"}});
    SensorOptions options;
    options.iioDirectory = root_;
    const auto queue = std::make_shared<SerialQueue>("motion");
    const auto manager = makeIioMotionManager(options);
    std::mutex mutex;
    std::condition_variable changed;
    int readings = 0;
    int errors = 0;
    double x = 0;
    const auto handler = [&](const DeviceMotion& motion, const std::optional<Error>& error) {
        EXPECT_TRUE(queue->isCurrent());
        const std::lock_guard lock(mutex);
        ++(error ? errors : readings);
        x = motion.rotationRate.x;
        changed.notify_all();
    };
    const auto waitFor = [&](auto condition) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10), condition);
    };
    manager->setDeviceMotionUpdateInterval(std::chrono::milliseconds(1));
    manager->startDeviceMotionUpdates(queue, [](const auto&, const auto&) {});
    manager->stopDeviceMotionUpdates();
    queue->drain();
    manager->startDeviceMotionUpdates(queue, handler);
    EXPECT_TRUE(waitFor([&] { return readings >= 5; }));
    EXPECT_EQ(x, 7);
    fs::remove(root_ / "iio:device0" / "in_anglvel_x_raw");
    EXPECT_TRUE(waitFor([&] { return errors >= 2; }));
    manager->stopDeviceMotionUpdates();
    queue->drain();
    const int total = readings + errors;
    queue->drain();
    EXPECT_EQ(readings + errors, total);
    manager->startDeviceMotionUpdates(queue, [](const auto&, const auto&) { ADD_FAILURE() << "there is no sensor any more"; });
    manager->stopDeviceMotionUpdates();
    queue->drain();
}

}  // namespace
}  // namespace selvio
