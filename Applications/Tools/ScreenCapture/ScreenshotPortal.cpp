#include "Applications/Tools/ScreenCapture/ScreenshotPortal.h"

#include <algorithm>
#include <utility>

// The portal answers by a signal of a request object. Its path is known beforehand, from the caller's name on the bus and
// a token of the caller's, so that the signal cannot come before somebody listens; portals of old chose another path, which
// they answer the call with. The user may take all the time there is: only the end of the portal ends the wait.

namespace utilia::tools {
namespace {

constexpr const char* kName = "org.freedesktop.portal.Desktop";
constexpr const char* kPath = "/org/freedesktop/portal/desktop";
constexpr int kPatience = 25'000;  // milliseconds, to be started and take the request

using Weak = std::weak_ptr<ScreenshotPortal*>;

}  // namespace

ScreenshotPortal::ScreenshotPortal(std::function<void(const Answer&)> answered)
    : answered_(std::move(answered)) {}

ScreenshotPortal::~ScreenshotPortal() { stopListening(); }

void ScreenshotPortal::capture() {
    if (std::exchange(isCapturing_, true)) return;
    g_bus_get(
        G_BUS_TYPE_SESSION, nullptr,
        [](GObject*, GAsyncResult* result, gpointer data) {
            const std::unique_ptr<Weak> owner(static_cast<Weak*>(data));
            GioError error;
            const ObjectPointer<GDBusConnection> bus(g_bus_get_finish(result, error.address()));
            // The bus may end: the tool goes on without it.
            if (bus) g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
            if (const auto self = owner->lock()) (*self)->connected(bus.get(), error);
        },
        new Weak(self_));
}

void ScreenshotPortal::connected(GDBusConnection* bus, GioError& error) {
    if (!bus) return end(Outcome::Failed, error.message());
    bus_.reset(static_cast<GDBusConnection*>(g_object_ref(bus)));
    const std::string token = "utilia" + std::to_string(++requests_);
    std::string sender = g_dbus_connection_get_unique_name(bus) + 1;  // without the colon
    std::replace(sender.begin(), sender.end(), '.', '_');
    listen(std::string(kPath) + "/request/" + sender + "/" + token);

    GVariantBuilder options;
    g_variant_builder_init(&options, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&options, "{sv}", "handle_token", g_variant_new_string(token.c_str()));
    g_variant_builder_add(&options, "{sv}", "interactive", g_variant_new_boolean(TRUE));
    g_dbus_connection_call(
        bus, kName, kPath, "org.freedesktop.portal.Screenshot", "Screenshot",
        g_variant_new("(sa{sv})", "", &options), G_VARIANT_TYPE("(o)"), G_DBUS_CALL_FLAGS_NONE,
        kPatience, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer data) {
            const std::unique_ptr<Weak> owner(static_cast<Weak*>(data));
            GioError failure;
            const VariantPointer reply(g_dbus_connection_call_finish(G_DBUS_CONNECTION(source),
                                                                     result, failure.address()));
            if (const auto self = owner->lock()) (*self)->called(reply.get(), failure);
        },
        new Weak(self_));
}

void ScreenshotPortal::called(GVariant* reply, GioError& error) {
    if (!isCapturing_) return;  // the answer was here first
    if (!reply) return end(Outcome::Failed, error.message());
    const char* request = nullptr;
    g_variant_get(reply, "(&o)", &request);
    if (request != request_) listen(request);
    watch_ = g_bus_watch_name_on_connection(
        bus_.get(), kName, G_BUS_NAME_WATCHER_FLAGS_NONE, nullptr,
        [](GDBusConnection*, const char*, gpointer self) {
            static_cast<ScreenshotPortal*>(self)->end(Outcome::Failed,
                                                      "the desktop portal has ended");
        },
        this, nullptr);
}

void ScreenshotPortal::listen(const std::string& request) {
    stopListening();
    request_ = request;
    subscription_ = g_dbus_connection_signal_subscribe(
        bus_.get(), kName, "org.freedesktop.portal.Request", "Response", request.c_str(), nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE,
        [](GDBusConnection*, const char*, const char*, const char*, const char*,
           GVariant* parameters, gpointer self) {
            if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ua{sv})"))) return;
            guint32 response = 0;
            GVariant* results = nullptr;
            g_variant_get(parameters, "(u@a{sv})", &response, &results);
            const VariantPointer kept(results);
            static_cast<ScreenshotPortal*>(self)->responded(response, results);
        },
        this, nullptr);
}

void ScreenshotPortal::responded(guint32 response, GVariant* results) {
    constexpr guint32 kSuccess = 0;
    constexpr guint32 kCancelled = 1;
    if (response == kCancelled) return end(Outcome::Cancelled, "");
    if (response != kSuccess)
        return end(Outcome::Failed, "the desktop portal took no picture, and gives no reason");
    const char* uri = nullptr;
    if (!g_variant_lookup(results, "uri", "&s", &uri))
        return end(Outcome::Failed, "the desktop portal names no picture");
    GioError error;
    const std::unique_ptr<char, decltype(&g_free)> path(
        g_filename_from_uri(uri, nullptr, error.address()), g_free);
    if (!path) return end(Outcome::Failed, error.message());
    end(Outcome::Taken, path.get());
}

void ScreenshotPortal::end(Outcome outcome, const std::string& text) {
    stopListening();
    isCapturing_ = false;
    answered_({outcome, text});
}

void ScreenshotPortal::stopListening() {
    if (const guint ended = std::exchange(subscription_, 0))
        g_dbus_connection_signal_unsubscribe(bus_.get(), ended);
    if (const guint ended = std::exchange(watch_, 0)) g_bus_unwatch_name(ended);
}

}  // namespace utilia::tools
