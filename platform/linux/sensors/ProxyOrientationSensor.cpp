#include <SelvioFacialCapture/linux/Sensors.h>

#include <gio/gio.h>

#include <atomic>
#include <thread>

namespace selvio {
namespace {

/// Unknown for a word that names no orientation.
DeviceOrientation orientationForProxy(const std::string& word) {
    if (word == "normal") return DeviceOrientation::Portrait;
    if (word == "bottom-up") return DeviceOrientation::PortraitUpsideDown;
    // The proxy names the edge that points up; an orientation is named by the side to which the device's top was
    // turned.
    if (word == "right-up") return DeviceOrientation::LandscapeLeft;
    if (word == "left-up") return DeviceOrientation::LandscapeRight;
    return DeviceOrientation::Unknown;
}

constexpr const char* kName = "net.hadess.SensorProxy";
constexpr const char* kPath = "/net/hadess/SensorProxy";
constexpr const char* kProperty = "AccelerometerOrientation";

// Asks on a thread of its own, which ends when `cancellable_` is cancelled.
class ProxyOrientationSensor final : public OrientationSensor {
public:
    explicit ProxyOrientationSensor(std::string busAddress)
        : busAddress_(std::move(busAddress)), thread_([this] { run(); }) {}

    ~ProxyOrientationSensor() override {
        g_cancellable_cancel(cancellable_);
        g_main_context_wakeup(context_);
        thread_.join();
        g_object_unref(cancellable_);
        g_main_context_unref(context_);
    }

    [[nodiscard]] DeviceOrientation orientation() const override { return orientation_; }

private:
    void run() {
        g_main_context_push_thread_default(context_);
        follow();
        // What was under way when the connection closed. The service notices a client that has gone.
        while (g_main_context_iteration(context_, FALSE) != FALSE) {
        }
        g_main_context_pop_thread_default(context_);
    }

    void follow() {
        g_autoptr(GDBusConnection) bus = connect();
        if (!bus) return;  // a system without a bus is a device without sensors
        g_dbus_connection_set_exit_on_close(bus, FALSE);
        g_autoptr(GDBusProxy) proxy = g_dbus_proxy_new_sync(bus, G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START, nullptr, kName,
                                                            kPath, kName, cancellable_, nullptr);
        if (!proxy) return;
        g_signal_connect(proxy, "g-properties-changed", G_CALLBACK(&onChange), this);
        g_signal_connect(proxy, "notify::g-name-owner", G_CALLBACK(&onOwner), this);
        onOwner(proxy, nullptr, this);
        while (g_cancellable_is_cancelled(cancellable_) == FALSE) g_main_context_iteration(context_, TRUE);
    }

    GDBusConnection* connect() {
        if (busAddress_.empty()) return g_bus_get_sync(G_BUS_TYPE_SYSTEM, cancellable_, nullptr);
        constexpr auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                                 G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
        return g_dbus_connection_new_for_address_sync(busAddress_.c_str(), flags, nullptr, cancellable_, nullptr);
    }

    static void onOwner(GDBusProxy* proxy, GParamSpec*, gpointer data) {
        auto* const self = static_cast<ProxyOrientationSensor*>(data);
        const auto call = [&](const char* method, GVariant* arguments) {
            return g_dbus_proxy_call_sync(proxy, method, arguments, G_DBUS_CALL_FLAGS_NONE, -1, self->cancellable_,
                                          nullptr);
        };
        g_autofree char* owner = g_dbus_proxy_get_name_owner(proxy);
        if (!owner) {
            self->orientation_ = DeviceOrientation::Portrait;
            return;
        }
        g_autoptr(GVariant) claimed = call("ClaimAccelerometer", nullptr);
        if (!claimed) return;
        // The proxy's own copy is from before the claim, when the property says nothing.
        g_autoptr(GVariant) answer =
            call("org.freedesktop.DBus.Properties.Get", g_variant_new("(ss)", kName, kProperty));
        if (!answer || !g_variant_is_of_type(answer, G_VARIANT_TYPE("(v)"))) return;
        g_autoptr(GVariant) value = nullptr;
        g_variant_get(answer, "(v)", &value);
        self->take(value);
    }

    static void onChange(GDBusProxy*, GVariant* changed, const char* const*, gpointer data) {
        g_autoptr(GVariant) value = g_variant_lookup_value(changed, kProperty, nullptr);
        if (value) static_cast<ProxyOrientationSensor*>(data)->take(value);
    }

    void take(GVariant* value) {
        if (!g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) return;
        const DeviceOrientation said = orientationForProxy(g_variant_get_string(value, nullptr));
        if (said != DeviceOrientation::Unknown) orientation_ = said;
    }

    const std::string busAddress_;
    std::atomic<DeviceOrientation> orientation_{DeviceOrientation::Portrait};
    GMainContext* const context_ = g_main_context_new();
    GCancellable* const cancellable_ = g_cancellable_new();
    std::thread thread_;  // last: it uses the others
};

}  // namespace

std::shared_ptr<OrientationSensor> makeOrientationSensor(SensorOptions options) {
    return std::make_shared<ProxyOrientationSensor>(std::move(options.busAddress));
}

}  // namespace selvio
