#include <gio/gio.h>

#include "Applications/utiliactl/Doctor/Diagnosis.h"
#include "Applications/utiliactl/SessionBus.h"

namespace utilia::control {
namespace {

using Severity = Diagnosis::Severity;

constexpr const char* kBus = "session bus";
constexpr const char* kTray = "status icons";
constexpr int kPatience = 2000;  // milliseconds

// Whether a panel shows status icons; empty when nobody can tell.
bool hasTrayHost(GDBusConnection* bus) {
    GVariant* const answer = g_dbus_connection_call_sync(
        bus, "org.kde.StatusNotifierWatcher", "/StatusNotifierWatcher",
        "org.freedesktop.DBus.Properties", "Get",
        g_variant_new("(ss)", "org.kde.StatusNotifierWatcher", "IsStatusNotifierHostRegistered"),
        G_VARIANT_TYPE("(v)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, kPatience, nullptr, nullptr);
    if (!answer) return false;
    GVariant* value = nullptr;
    g_variant_get(answer, "(v)", &value);
    const bool isThere =
        g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN) && g_variant_get_boolean(value);
    g_variant_unref(value);
    g_variant_unref(answer);
    return isThere;
}

}  // namespace

Diagnoses checkSession() {
    const auto bus = connectToSessionBus();
    if (!bus) {
        return {
            {kBus, Severity::Warning, bus.error().description,
             "Agent and tools talk without it, but schedules that tools change are noticed only "
             "when the agent looks, and there are no status icons. Log in to a desktop, or "
             "start a session with \"dbus-run-session\"."}};
    }
    Diagnoses found{{kBus, Severity::Good, sessionBusAddress(), ""}};
    if (hasTrayHost(bus->get())) {
        found.push_back({kTray, Severity::Good, "a panel shows them", ""});
    } else {
        found.push_back({kTray, Severity::Warning, "no panel of this session shows them",
                         "Open the agent's window instead (\"korvane-utilia --show-ui\"), or add "
                         "a status icon area to the panel; GNOME needs an extension for it "
                         "(AppIndicator support)."});
    }
    return found;
}

}  // namespace utilia::control
