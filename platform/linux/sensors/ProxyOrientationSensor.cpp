#include <SelvioFacialCapture/linux/Sensors.h>

#include <gio/gio.h>

#include <atomic>
#include <thread>

namespace selvio {
namespace {

constexpr const char* kName = "net.hadess.SensorProxy";
constexpr const char* kPath = "/net/hadess/SensorProxy";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

// Lives on a thread with a main context of its own; everything but `orientation_` is used there only.
class ProxyOrientationSensor final : public OrientationSensor {
public:
    explicit ProxyOrientationSensor(std::string busAddress)
        : busAddress_(std::move(busAddress)),
          context_(g_main_context_new()),
          loop_(g_main_loop_new(context_, FALSE)),
          cancellable_(g_cancellable_new()),
          thread_([this] { run(); }) {}

    ~ProxyOrientationSensor() override {
        g_cancellable_cancel(cancellable_);
        // As work of the loop, so that it is not lost on a loop that has not begun yet.
        GSource* const quit = g_idle_source_new();
        g_source_set_callback(
            quit,
            [](gpointer loop) -> gboolean {
                g_main_loop_quit(static_cast<GMainLoop*>(loop));
                return G_SOURCE_REMOVE;
            },
            loop_, nullptr);
        g_source_attach(quit, context_);
        g_source_unref(quit);
        thread_.join();
        g_object_unref(cancellable_);
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
    }

    [[nodiscard]] DeviceOrientation orientation() const override { return orientation_; }

private:
    void run() {
        g_main_context_push_thread_default(context_);
        if ((bus_ = connect()) != nullptr) {
            const guint changes =
                g_dbus_connection_signal_subscribe(bus_, kName, kProperties, "PropertiesChanged", kPath, kName,
                                                   G_DBUS_SIGNAL_FLAGS_NONE, &onChange, this, nullptr);
            const guint watch = g_bus_watch_name_on_connection(bus_, kName, G_BUS_NAME_WATCHER_FLAGS_NONE, &onAppeared,
                                                               &onVanished, this, nullptr);
            g_main_loop_run(loop_);
            g_bus_unwatch_name(watch);
            g_dbus_connection_signal_unsubscribe(bus_, changes);
            // The proxy notices a client that has gone, and lets go of the accelerometer by itself.
            while (g_main_context_iteration(context_, FALSE) != FALSE) {
            }
            g_object_unref(bus_);
        }
        g_main_context_pop_thread_default(context_);
    }

    GDBusConnection* connect() {
        GError* error = nullptr;
        const auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
        GDBusConnection* const bus =
            busAddress_.empty()
                ? g_bus_get_sync(G_BUS_TYPE_SYSTEM, cancellable_, &error)
                : g_dbus_connection_new_for_address_sync(busAddress_.c_str(), flags, nullptr, cancellable_, &error);
        g_clear_error(&error);  // a system without a bus is a device without sensors
        if (bus != nullptr) g_dbus_connection_set_exit_on_close(bus, FALSE);
        return bus;
    }

    static void onAppeared(GDBusConnection* bus, const char*, const char*, gpointer data) {
        auto* const self = static_cast<ProxyOrientationSensor*>(data);
        // The property says nothing until the accelerometer is claimed.
        g_dbus_connection_call(bus, kName, kPath, kName, "ClaimAccelerometer", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE,
                               -1, self->cancellable_, &onClaimed, self);
    }

    static void onVanished(GDBusConnection*, const char*, gpointer data) {
        static_cast<ProxyOrientationSensor*>(data)->orientation_ = DeviceOrientation::Portrait;
    }

    static void onClaimed(GObject* source, GAsyncResult* result, gpointer data) {
        GVariant* const answer = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, nullptr);
        if (answer == nullptr) return;  // refused, or `data` has gone
        g_variant_unref(answer);
        auto* const self = static_cast<ProxyOrientationSensor*>(data);
        g_dbus_connection_call(G_DBUS_CONNECTION(source), kName, kPath, kProperties, "Get",
                               g_variant_new("(ss)", kName, "AccelerometerOrientation"), G_VARIANT_TYPE("(v)"),
                               G_DBUS_CALL_FLAGS_NONE, -1, self->cancellable_, &onRead, self);
    }

    static void onRead(GObject* source, GAsyncResult* result, gpointer data) {
        GVariant* const answer = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, nullptr);
        if (answer == nullptr) return;
        GVariant* value = nullptr;
        g_variant_get(answer, "(v)", &value);
        static_cast<ProxyOrientationSensor*>(data)->take(value);
        g_variant_unref(value);
        g_variant_unref(answer);
    }

    static void onChange(GDBusConnection*, const char*, const char*, const char*, const char*, GVariant* parameters,
                         gpointer data) {
        if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(sa{sv}as)"))) return;
        GVariant* const changed = g_variant_get_child_value(parameters, 1);
        GVariant* const value = g_variant_lookup_value(changed, "AccelerometerOrientation", G_VARIANT_TYPE_STRING);
        if (value != nullptr) {
            static_cast<ProxyOrientationSensor*>(data)->take(value);
            g_variant_unref(value);
        }
        g_variant_unref(changed);
    }

    void take(GVariant* value) {
        if (!g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) return;
        const DeviceOrientation said = orientationForProxy(g_variant_get_string(value, nullptr));
        if (said != DeviceOrientation::Unknown) orientation_ = said;
    }

    const std::string busAddress_;
    std::atomic<DeviceOrientation> orientation_{DeviceOrientation::Portrait};
    GMainContext* const context_;
    GMainLoop* const loop_;
    GCancellable* const cancellable_;
    GDBusConnection* bus_ = nullptr;
    std::thread thread_;
};

}  // namespace

DeviceOrientation orientationForProxy(const std::string& word) {
    if (word == "normal") return DeviceOrientation::Portrait;
    if (word == "bottom-up") return DeviceOrientation::PortraitUpsideDown;
    // The proxy names the edge that points up; an orientation is named by the side to which the device's top was
    // turned.
    if (word == "right-up") return DeviceOrientation::LandscapeLeft;
    if (word == "left-up") return DeviceOrientation::LandscapeRight;
    return DeviceOrientation::Unknown;
}

std::shared_ptr<OrientationSensor> makeOrientationSensor(SensorOptions options) {
    return std::make_shared<ProxyOrientationSensor>(std::move(options.busAddress));
}

}  // namespace selvio
