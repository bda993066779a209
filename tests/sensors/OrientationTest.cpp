// The orientation sensor against a stand-in for the proxy on a message bus of its own.
#include <SelvioFacialCapture/linux/Sensors.h>

#include <gio/gio.h>
#include <gtest/gtest.h>

#include "support/ComesTrue.h"

namespace selvio {
namespace {

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
            return test::comesTrue([&] {
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
}  // namespace selvio
