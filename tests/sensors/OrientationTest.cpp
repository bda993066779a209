// The orientation sensor against a stand-in for the proxy on a message bus of its own.
#include <SelvioFacialCapture/linux/Sensors.h>

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace selvio {
namespace {

constexpr const char* kInterface = R"(<node><interface name="net.hadess.SensorProxy">
  <method name="ClaimAccelerometer"/><method name="ReleaseAccelerometer"/>
  <property name="HasAccelerometer" type="b" access="read"/><property name="AccelerometerOrientation" type="s" access="read"/>
</interface></node>)";

// Says "undefined" until a client has claimed the accelerometer, as the real one does.
class StandInProxy {
public:
    StandInProxy(const std::string& address, std::string word) : word_(std::move(word)), context_(g_main_context_new()) {
        g_main_context_push_thread_default(context_);
        const auto flags =
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
        bus_ = g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr, nullptr);
        node_ = g_dbus_node_info_new_for_xml(kInterface, nullptr);
        static const GDBusInterfaceVTable table = {&onCall, &onGet, nullptr, {}};
        g_dbus_connection_register_object(bus_, "/net/hadess/SensorProxy", node_->interfaces[0], &table, this, nullptr, nullptr);
        g_bus_own_name_on_connection(bus_, "net.hadess.SensorProxy", G_BUS_NAME_OWNER_FLAGS_NONE, nullptr, nullptr, nullptr, nullptr);
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
        while (g_main_context_iteration(context_, FALSE) != FALSE) {
        }
    }
    void turn(const std::string& word) {
        word_ = word;
        GVariantBuilder changed;
        g_variant_builder_init(&changed, G_VARIANT_TYPE("a{sv}"));
        g_variant_builder_add(&changed, "{sv}", "AccelerometerOrientation", g_variant_new_string(word.c_str()));
        g_dbus_connection_emit_signal(bus_, nullptr, "/net/hadess/SensorProxy", "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                      g_variant_new("(sa{sv}as)", "net.hadess.SensorProxy", &changed, nullptr), nullptr);
    }

private:
    static void onCall(GDBusConnection*, const char*, const char*, const char*, const char* method, GVariant*, GDBusMethodInvocation* call,
                       gpointer self) {
        if (std::string(method) == "ClaimAccelerometer") static_cast<StandInProxy*>(self)->claimed_ = true;
        g_dbus_method_invocation_return_value(call, nullptr);
    }
    static GVariant* onGet(GDBusConnection*, const char*, const char*, const char*, const char* property, GError**, gpointer data) {
        const auto* const self = static_cast<StandInProxy*>(data);
        if (std::string(property) == "HasAccelerometer") return g_variant_new_boolean(TRUE);
        return g_variant_new_string(self->claimed_ ? self->word_.c_str() : "undefined");
    }

    std::string word_;
    bool claimed_ = false;
    GMainContext* const context_;
    GDBusConnection* bus_ = nullptr;
    GDBusNodeInfo* node_ = nullptr;
};

TEST(OrientationSensor, KnowsTheProxysWords) {
    using O = DeviceOrientation;
    for (const auto& [word, expected] : {std::pair{"normal", O::Portrait},
                                         {"bottom-up", O::PortraitUpsideDown},
                                         {"right-up", O::LandscapeLeft},
                                         {"left-up", O::LandscapeRight},
                                         {"undefined", O::Unknown},
                                         {"", O::Unknown}}) {
        EXPECT_EQ(orientationForProxy(word), expected) << word;
    }
}

TEST(OrientationSensor, FollowsTheProxyWhileThereIsOne) {
    GTestDBus* const bus = g_test_dbus_new(G_TEST_DBUS_NONE);
    g_test_dbus_up(bus);
    const std::string address = g_test_dbus_get_bus_address(bus);
    {
        auto proxy = std::make_unique<StandInProxy>(address, "left-up");
        SensorOptions options;
        options.busAddress = address;
        const auto sensor = makeOrientationSensor(options);
        EXPECT_EQ(sensor->orientation(), DeviceOrientation::Portrait);
        const auto becomes = [&](DeviceOrientation expected) {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
            while (sensor->orientation() != expected && std::chrono::steady_clock::now() < deadline) {
                if (proxy) proxy->serve();
                std::this_thread::yield();
            }
            return sensor->orientation() == expected;
        };
        EXPECT_TRUE(becomes(DeviceOrientation::LandscapeRight)) << "read after the claim";
        proxy->turn("bottom-up");
        EXPECT_TRUE(becomes(DeviceOrientation::PortraitUpsideDown));
        proxy->turn("undefined");
        proxy->turn("right-up");
        EXPECT_TRUE(becomes(DeviceOrientation::LandscapeLeft));
        proxy.reset();
        EXPECT_TRUE(becomes(DeviceOrientation::Portrait)) << "the proxy has gone";
    }
    g_test_dbus_down(bus);
    g_object_unref(bus);
}

TEST(OrientationSensor, WithoutABusTheDeviceIsInPortrait) {
    SensorOptions options;
    options.busAddress = "unix:path=/nonexistent/bus";
    for (int i = 0; i < 20; ++i) EXPECT_EQ(makeOrientationSensor(options)->orientation(), DeviceOrientation::Portrait);
}

}  // namespace
}  // namespace selvio
