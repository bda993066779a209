// The gyroscope on files such as the kernel shows, and the orientation sensor against a stand-in for the proxy on a
// message bus of its own.
#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/linux/Sensors.h>

#include "platform/linux/sensors/IioGyroscope.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <map>

#include "support/ComesTrue.h"
#include "support/TemporaryDirectory.h"

namespace {

using namespace selvio;

using Files = std::map<std::string, std::string>;

// A tree of files such as the kernel shows.
struct IioTree : ::testing::Test {
    void write(const std::string& device, const Files& files) {
        for (const auto& [name, text] : files)
            directory_.write((std::filesystem::path(device) / name).string(), text + "\n");
    }
    const TemporaryDirectory directory_;
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
        EXPECT_LT(std::hypot(rate.x - expected->x, rate.y - expected->y, rate.z - expected->z), 1e-9);
    }
    EXPECT_FALSE(IioGyroscope::find(root_ / "missing"));
    EXPECT_FALSE(parseMountMatrix("1, 0, 0; 0, 1, 0"));
}

TEST_F(IioTree, FeedsTheHandlerUntilStopped) {
    write("iio:device0", raw_);
    write("iio:device0", {{"in_anglvel_scale", "0.07"}});
    const auto queue = std::make_shared<SerialQueue>("motion");
    const auto manager = makeIioMotionManager({.iioDirectory = root_, .busAddress = {}});
    std::atomic<int> readings = 0, errors = 0;
    manager->setDeviceMotionUpdateInterval(std::chrono::milliseconds(1));
    manager->startDeviceMotionUpdates(queue, [&](const DeviceMotion& motion, const std::optional<Error>& error) {
        EXPECT_TRUE(queue->isCurrent());
        EXPECT_TRUE(error || std::abs(motion.rotationRate.x - 7) < 1e-9);
        ++(error ? errors : readings);
    });
    EXPECT_TRUE(comesTrue([&] { return readings >= 5; }));
    std::filesystem::remove(root_ / "iio:device0" / "in_anglvel_x_raw");
    EXPECT_TRUE(comesTrue([&] { return errors >= 2; }));
    manager->stopDeviceMotionUpdates();
    queue->drain();
    const int total = readings + errors;
    queue->drain();
    EXPECT_EQ(readings + errors, total);
}

// The proxy as a client sees it: it says "undefined" until the accelerometer has been claimed.
class StandInProxy {
public:
    StandInProxy() {
        g_dbus_connection_add_filter(bus_, &answer, nullptr, nullptr);
        g_variant_unref(g_dbus_connection_call_sync(bus_, "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                                                    "RequestName", g_variant_new("(su)", kName, 0), nullptr,
                                                    G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
    }
    ~StandInProxy() {
        g_dbus_connection_close_sync(bus_, nullptr, nullptr);
        g_object_unref(bus_);
    }
    void turn(const char* word) {
        g_dbus_connection_emit_signal(
            bus_, nullptr, "/net/hadess/SensorProxy", "org.freedesktop.DBus.Properties", "PropertiesChanged",
            g_variant_new_parsed("(%s, {'AccelerometerOrientation': <%s>}, @as [])", kName, word), nullptr);
    }

private:
    // On a thread of the bus.
    static GDBusMessage* answer(GDBusConnection* bus, GDBusMessage* call, gboolean incoming, gpointer) {
        if (incoming == FALSE || g_dbus_message_get_message_type(call) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) return call;
        const std::string member = g_dbus_message_get_member(call);
        claimed_ = claimed_ || member == "ClaimAccelerometer";
        g_autoptr(GDBusMessage) reply = g_dbus_message_new_method_reply(call);
        if (member == "Get")
            g_dbus_message_set_body(reply, g_variant_new_parsed("(<%s>,)", claimed_ ? "left-up" : "undefined"));
        g_dbus_connection_send_message(bus, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
        g_object_unref(call);
        return nullptr;
    }
    static constexpr const char* kName = "net.hadess.SensorProxy";
    static inline std::atomic<bool> claimed_ = false;
    GDBusConnection* const bus_ = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
};

TEST(OrientationSensor, FollowsTheProxyWhileThereIsOne) {
    GTestDBus* const bus = g_test_dbus_new(G_TEST_DBUS_NONE);
    g_test_dbus_up(bus);
    const std::string address = g_test_dbus_get_bus_address(bus);
    {
        auto proxy = std::make_unique<StandInProxy>();
        const auto sensor = makeOrientationSensor({.busAddress = address});
        EXPECT_EQ(sensor->orientation(), DeviceOrientation::Portrait);
        const auto becomes = [&](DeviceOrientation expected) {
            return comesTrue([&] { return sensor->orientation() == expected; });
        };
        EXPECT_TRUE(becomes(DeviceOrientation::LandscapeRight)) << "read after the claim";
        for (const auto& [word, orientation] : {std::pair{"bottom-up", DeviceOrientation::PortraitUpsideDown},
                                                {"normal", DeviceOrientation::Portrait},
                                                {"right-up", DeviceOrientation::LandscapeLeft}}) {
            proxy->turn(word);
            EXPECT_TRUE(becomes(orientation)) << word;
        }
        proxy.reset();
        EXPECT_TRUE(becomes(DeviceOrientation::Portrait)) << "the proxy has gone";
    }
    g_test_dbus_down(bus);
    g_object_unref(bus);
    EXPECT_EQ(makeOrientationSensor({.busAddress = address})->orientation(), DeviceOrientation::Portrait);
}

}  // namespace
