// timer-notification SUMMARY BODY: has the desktop show a notification of Timer. Exit status: 0 shown, 1 nobody shows it
// (the system's log says why), 2 wrong arguments.

#include <syslog.h>

#include "Applications/Tools/Desktop/Gio.h"

namespace {

using namespace utilia::tools;

constexpr int kPatience = 10'000;  // milliseconds
constexpr gint32 kUntilSeen = 0;

GVariant* notification(const char* summary, const char* body) {
    GVariantBuilder hints;
    g_variant_builder_init(&hints, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&hints, "{sv}", "desktop-entry",
                          g_variant_new_string("com.korvane.utilia.Timer"));
    g_variant_builder_add(&hints, "{sv}", "category", g_variant_new_string("x-utilia.timer.end"));
    g_variant_builder_add(&hints, "{sv}", "sound-name",
                          g_variant_new_string("alarm-clock-elapsed"));
    return g_variant_new("(susssasa{sv}i)", "Timer", 0u, "alarm-symbolic", summary, body, nullptr,
                         &hints, kUntilSeen);
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 3) return 2;
    GioError error;
    const ObjectPointer<GDBusConnection> bus(
        g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, error.address()));
    if (bus) {
        const VariantPointer shown(g_dbus_connection_call_sync(
            bus.get(), "org.freedesktop.Notifications", "/org/freedesktop/Notifications",
            "org.freedesktop.Notifications", "Notify", notification(arguments[1], arguments[2]),
            G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, kPatience, nullptr, error.address()));
        if (shown) return 0;
    }
    openlog("timer", LOG_PID, LOG_USER);
    syslog(LOG_WARNING, "Timer: \"%s\" is not shown: %s", arguments[1], error.message().c_str());
    return 1;
}
