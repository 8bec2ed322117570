#include "Applications/utiliactl/SessionBus.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <gio/gio.h>

namespace utilia::control {
namespace {

constexpr unsigned kPatience = 2000;  // milliseconds

// A bus that is stopped takes connections and says nothing, so the greeting is waited for in the main
// loop, which can give up. (The connection tells that loop of its end, later.)
class Greeting final {
public:
    Greeting() : timeout_(g_timeout_source_new(kPatience)), cancelled_(g_cancellable_new()) {
        g_source_set_callback(timeout_, &Greeting::giveUp, this, nullptr);
        g_source_attach(timeout_, nullptr);
    }
    ~Greeting() {
        g_source_destroy(timeout_);
        g_source_unref(timeout_);
        g_object_unref(cancelled_);
    }
    Greeting(const Greeting&) = delete;
    Greeting& operator=(const Greeting&) = delete;

    Result<SessionBus> waitFor(const std::string& address) {
        g_dbus_connection_new_for_address(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, cancelled_, &Greeting::finish, this);
        while (!isFinished_) g_main_context_iteration(nullptr, TRUE);
        if (connection_) return SessionBus(connection_);
        return Error::utilia(
            UtiliaErrorCode::Unavailable,
            "the session's bus at " + address + ": " +
                (g_cancellable_is_cancelled(cancelled_) ? "it does not answer" : failure_));
    }

private:
    static gboolean giveUp(gpointer self) {
        g_cancellable_cancel(static_cast<Greeting*>(self)->cancelled_);
        return G_SOURCE_REMOVE;
    }
    static void finish(GObject*, GAsyncResult* result, gpointer self) {
        auto& greeting = *static_cast<Greeting*>(self);
        GError* error = nullptr;
        greeting.connection_ = g_dbus_connection_new_for_address_finish(result, &error);
        if (error) greeting.failure_ = error->message;
        g_clear_error(&error);
        greeting.isFinished_ = true;
    }

    GSource* timeout_;
    GCancellable* cancelled_;
    GDBusConnection* connection_ = nullptr;
    std::string failure_;
    bool isFinished_ = false;
};

}  // namespace

void CloseBus::operator()(GDBusConnection* connection) const { g_object_unref(connection); }

std::string sessionBusAddress() {
    const char* const given = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (given && *given) return given;
    const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
    if (!runtime || *runtime != '/') return "";
    const std::string socket = std::string(runtime) + "/bus";
    std::error_code ignored;
    return std::filesystem::exists(socket, ignored) ? "unix:path=" + socket : "";
}

Result<SessionBus> connectToSessionBus() {
    const std::string address = sessionBusAddress();
    if (address.empty()) {
        return Error::utilia(UtiliaErrorCode::Unavailable,
                             "this session has no bus: DBUS_SESSION_BUS_ADDRESS is not set, and "
                             "there is no bus in the runtime folder");
    }
    auto connection = Greeting().waitFor(address);
    if (connection) g_dbus_connection_set_exit_on_close(connection->get(), FALSE);
    return connection;
}

}  // namespace utilia::control
