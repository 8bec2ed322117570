#include "Common/Platform/Linux/Modules/Desktop/NetworkManagerWatch.h"

#include <utility>

// The connection to the system bus is this module's own. The one that GIO shares in a process
// belongs to whoever asks first, and ends the process with SIGTERM when the bus goes away.

namespace utilia::platform::desktop {
namespace {

// Contract: never renumber. NetworkManager's NMConnectivityState.
constexpr guint32 kConnectivityPortal = 2;
constexpr guint32 kConnectivityLimited = 3;

struct VariantUnref {
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
};

}  // namespace

void NetworkManagerWatch::start() {
    const std::unique_ptr<char, void (*)(void*)> address(
        g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr), g_free);
    if (!address) return;
    g_dbus_connection_new_for_address(
        address.get(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &NetworkManagerWatch::connected, this);
}

void NetworkManagerWatch::connected(GObject*, GAsyncResult* result, gpointer watch) {
    auto* self = static_cast<NetworkManagerWatch*>(watch);
    self->connection_.reset(g_dbus_connection_new_for_address_finish(result, nullptr));
    if (!self->connection_) return;
    g_dbus_connection_set_exit_on_close(self->connection_.get(), FALSE);
    g_signal_connect_swapped(self->connection_.get(), "closed",
                             G_CALLBACK(&NetworkManagerWatch::closed), self);
    g_dbus_proxy_new(self->connection_.get(), G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START, nullptr,
                     "org.freedesktop.NetworkManager", "/org/freedesktop/NetworkManager",
                     "org.freedesktop.NetworkManager", nullptr, &NetworkManagerWatch::proxyMade,
                     self);
}

void NetworkManagerWatch::proxyMade(GObject*, GAsyncResult* result, gpointer watch) {
    auto* self = static_cast<NetworkManagerWatch*>(watch);
    self->proxy_.reset(g_dbus_proxy_new_finish(result, nullptr));
    if (!self->proxy_) return;
    for (const char* signal : {"g-properties-changed", "notify::g-name-owner"}) {
        g_signal_connect_swapped(self->proxy_.get(), signal,
                                 G_CALLBACK(&NetworkManagerWatch::update), self);
    }
    update(self);
}

void NetworkManagerWatch::update(NetworkManagerWatch* self) {
    const std::unique_ptr<char, void (*)(void*)> owner(
        g_dbus_proxy_get_name_owner(self->proxy_.get()), g_free);
    const std::unique_ptr<GVariant, VariantUnref> connectivity(
        g_dbus_proxy_get_cached_property(self->proxy_.get(), "Connectivity"));
    guint32 state = 0;
    if (owner && connectivity && g_variant_is_of_type(connectivity.get(), G_VARIANT_TYPE_UINT32)) {
        state = g_variant_get_uint32(connectivity.get());
    }
    self->setRestricted(state == kConnectivityPortal || state == kConnectivityLimited);
}

void NetworkManagerWatch::closed(NetworkManagerWatch* self) { self->setRestricted(false); }

void NetworkManagerWatch::setRestricted(bool isRestricted) {
    if (std::exchange(isRestricted_, isRestricted) != isRestricted) changed_();
}

}  // namespace utilia::platform::desktop
