// The gyroscope on files such as the kernel shows, and the orientation sensor against a stand-in for the proxy on a
// message bus of its own.
#include <SelvioFacialCapture/base/SerialQueue.h>
#include <SelvioFacialCapture/linux/Sensors.h>

#include <platform/linux/sensors/IioGyroscope.h>

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>

#include "support/ComesTrue.h"
#include "support/TemporaryDirectory.h"

namespace selvio::test {
namespace {

using Files = std::map<std::string, std::string>;

// A tree of files such as the kernel shows.
class IioTree : public ::testing::Test {
protected:
    void write(const std::string& device, const Files& files) {
        for (const auto& [name, text] : files) directory_.write(device + "/" + name, text + "\n");
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
    EXPECT_TRUE(comesTrue([&] { return readings >= 5; }));
    std::filesystem::remove(root_ / "iio:device0" / "in_anglvel_x_raw");
    EXPECT_TRUE(comesTrue([&] { return errors >= 2; }));
    manager->stopDeviceMotionUpdates();
    queue->drain();
    const int total = readings + errors;
    queue->drain();
    EXPECT_EQ(readings + errors, total);
}

constexpr const char* kName = "net.hadess.SensorProxy";
constexpr auto kFlags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
constexpr const char* kPath = "/net/hadess/SensorProxy";
constexpr const char* kInterface = R"(<node><interface name="net.hadess.SensorProxy">
  <method name="ClaimAccelerometer"/><property name="AccelerometerOrientation" type="s" access="read"/>
</interface></node>)";

// Says "undefined" until a client has claimed the accelerometer, as the real one does.
class StandInProxy {
public:
    explicit StandInProxy(const char* address) {
        g_main_context_push_thread_default(context_);
        bus_ = g_dbus_connection_new_for_address_sync(address, kFlags, nullptr, nullptr, nullptr);
        static const GDBusInterfaceVTable table = {&onCall, &onGet, nullptr, {}};
        g_dbus_connection_register_object(bus_, kPath, node_->interfaces[0], &table, this, nullptr, nullptr);
        g_bus_own_name_on_connection(bus_, kName, G_BUS_NAME_OWNER_FLAGS_NONE, nullptr, nullptr, nullptr, nullptr);
        g_main_context_pop_thread_default(context_);
    }
    ~StandInProxy() {
        g_dbus_connection_close_sync(bus_, nullptr, nullptr);
        serve();
        g_object_unref(bus_);
        g_dbus_node_info_unref(node_);
        g_main_context_unref(context_);
    }
    void serve() {
        while (g_main_context_iteration(context_, FALSE) != FALSE) continue;
    }
    void turn(const char* word) {
        word_ = word;
        g_dbus_connection_emit_signal(
            bus_, nullptr, kPath, "org.freedesktop.DBus.Properties", "PropertiesChanged",
            g_variant_new_parsed("(%s, {'AccelerometerOrientation': <%s>}, @as [])", kName, word), nullptr);
    }

private:
    static void onCall(GDBusConnection*, const char*, const char*, const char*, const char*, GVariant*,
                       GDBusMethodInvocation* claim, gpointer self) {
        static_cast<StandInProxy*>(self)->claimed_ = true;
        g_dbus_method_invocation_return_value(claim, nullptr);
    }
    static GVariant* onGet(GDBusConnection*, const char*, const char*, const char*, const char*, GError**,
                           gpointer self) {
        const auto& proxy = *static_cast<const StandInProxy*>(self);
        return g_variant_new_string(proxy.claimed_ ? proxy.word_ : "undefined");
    }

    const char* word_ = "left-up";
    bool claimed_ = false;
    GMainContext* const context_ = g_main_context_new();
    GDBusNodeInfo* const node_ = g_dbus_node_info_new_for_xml(kInterface, nullptr);
    GDBusConnection* bus_ = nullptr;
};

TEST(OrientationSensor, FollowsTheProxyWhileThereIsOne) {
    GTestDBus* const bus = g_test_dbus_new(G_TEST_DBUS_NONE);
    g_test_dbus_up(bus);
    const std::string address = g_test_dbus_get_bus_address(bus);
    {
        auto proxy = std::make_unique<StandInProxy>(address.c_str());
        const auto sensor = makeOrientationSensor({.busAddress = address});
        EXPECT_EQ(sensor->orientation(), DeviceOrientation::Portrait);
        const auto becomes = [&](DeviceOrientation expected) {
            return comesTrue([&] {
                EXPECT_NE(sensor->orientation(), DeviceOrientation::Unknown);
                if (proxy) proxy->serve();
                return sensor->orientation() == expected;
            });
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
}  // namespace selvio::test
