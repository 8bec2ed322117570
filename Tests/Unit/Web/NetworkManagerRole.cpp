#include <string>

#include <gio/gio.h>
#include <poll.h>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"

// NetworkManager, as far as its property "Connectivity" goes, on the bus at the given address. Each
// line from the test is a new value of the property; "done" follows the signal that announces it.

namespace {

constexpr const char* kName = "org.freedesktop.NetworkManager";
constexpr const char* kPath = "/org/freedesktop/NetworkManager";
constexpr const char* kInterface = "<node><interface name='org.freedesktop.NetworkManager'>"
                                   "<property name='Connectivity' type='u' access='read'/>"
                                   "</interface></node>";

guint32 connectivity = 4;

GVariant* property(GDBusConnection*, const char*, const char*, const char*, const char*, GError**,
                   gpointer) {
    return g_variant_new_uint32(connectivity);
}

void announce(GDBusConnection* bus) {
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_add(&changed, "{sv}", "Connectivity", g_variant_new_uint32(connectivity));
    g_dbus_connection_emit_signal(bus, nullptr, kPath, "org.freedesktop.DBus.Properties",
                                  "PropertiesChanged",
                                  g_variant_new("(sa{sv}as)", kName, &changed, nullptr), nullptr);
    g_dbus_connection_flush_sync(bus, nullptr, nullptr);
}

UTILIA_CHILD_ROLE(networkManager) {
    GDBusConnection* const bus = g_dbus_connection_new_for_address_sync(
        self.arguments.at(0).c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(kInterface, nullptr);
    if (!bus || !node) return 1;
    const GDBusInterfaceVTable functions{nullptr, &property, nullptr, {}};
    g_dbus_connection_register_object(bus, kPath, node->interfaces[0], &functions, nullptr, nullptr,
                                      nullptr);
    bool isOwned = false;
    g_bus_own_name_on_connection(
        bus, kName, G_BUS_NAME_OWNER_FLAGS_NONE,
        [](GDBusConnection*, const char*, gpointer owned) { *static_cast<bool*>(owned) = true; },
        nullptr, &isOwned, nullptr);
    while (!isOwned) g_main_context_iteration(nullptr, TRUE);
    self.say("ready");
    // GDBus reads the bus on a thread of its own; what it has for this one is served in between.
    for (;;) {
        pollfd channel{utilia::test::kChildChannel, POLLIN, 0};
        while (poll(&channel, 1, 1) == 0) g_main_context_iteration(nullptr, FALSE);
        const std::string line = self.waitForLine();
        if (line.empty()) return 0;
        connectivity = static_cast<guint32>(std::stoul(line));
        announce(bus);
        self.say("done");
    }
}

}  // namespace
