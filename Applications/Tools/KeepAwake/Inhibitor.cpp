#include "Applications/Tools/KeepAwake/Inhibitor.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include <gio/gunixfdlist.h>

// Requests are never cancelled: a grant whose answer nobody waits for any more would last until the process ends. The
// answer is awaited instead, and what it grants to a start that is over is given back at once.
//
// A service that does not answer within kPatience counts as one that refuses, so that the next one is asked; so does a bus
// that takes connections and says nothing.
//
// The connection with the session's bus is this class's own: the one that GIO shares in a process is handed out again after
// its bus has ended for as long as anybody holds it, and where there is no bus GIO would start one.

namespace utilia::tools {
namespace {

constexpr int kPatience = 5000;  // milliseconds
// Between two looks for a bus that was lost.
constexpr guint kFirstPause = 250;      // milliseconds
constexpr guint kLongestPause = 30000;  // milliseconds

constexpr guint32 kGnomeInhibitSuspend = 4;
constexpr guint32 kGnomeInhibitIdle = 8;
constexpr guint32 kPortalInhibitSuspend = 4;
constexpr guint32 kPortalInhibitIdle = 8;

constexpr const char* kLoginManager = "org.freedesktop.login1";

// The bus that the environment names, or the usual place. Empty without either.
std::string sessionBusAddress() {
    const char* const named = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (named && *named) return named;
    const char* const folder = std::getenv("XDG_RUNTIME_DIR");
    if (!folder || !*folder) return {};
    const std::string socket = std::string(folder) + "/bus";
    const std::unique_ptr<char, decltype(&g_free)> escaped(
        g_dbus_address_escape_value(socket.c_str()), g_free);
    return std::string("unix:path=") + escaped.get();
}

using Request = GVariant* (*)(const char* application, const char* reason);

// One of the interfaces by which sessions are asked.
struct SessionService {
    const char* name;
    const char* path;
    const char* interface;
    // A portal is started when it is asked; the others belong to the desktop, and run or do not.
    GDBusCallFlags flags;
    const char* answerType;
    Request request;
    const char* giveBack;  // null: Close of the object that was answered
};

GVariant* askScreenSaver(const char* application, const char* reason) {
    return g_variant_new("(ss)", application, reason);
}

GVariant* askGnome(const char* application, const char* reason) {
    return g_variant_new("(susu)", application, 0u, reason,
                         kGnomeInhibitSuspend | kGnomeInhibitIdle);
}

GVariant* askPortal(const char*, const char* reason) {
    GVariantBuilder options;
    g_variant_builder_init(&options, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&options, "{sv}", "reason", g_variant_new_string(reason));
    return g_variant_new("(sua{sv})", "", kPortalInhibitSuspend | kPortalInhibitIdle, &options);
}

constexpr std::array<SessionService, 3> kServices{{
    {"org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver", "org.freedesktop.ScreenSaver",
     G_DBUS_CALL_FLAGS_NO_AUTO_START, "(u)", askScreenSaver, "UnInhibit"},
    {"org.gnome.SessionManager", "/org/gnome/SessionManager", "org.gnome.SessionManager",
     G_DBUS_CALL_FLAGS_NO_AUTO_START, "(u)", askGnome, "Uninhibit"},
    {"org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop",
     "org.freedesktop.portal.Inhibit", G_DBUS_CALL_FLAGS_NONE, "(o)", askPortal, nullptr},
}};

// Given up after the patience; late for a connection that is made by then, it does nothing.
ObjectPointer<GCancellable> givenUpInTime() {
    ObjectPointer<GCancellable> given(g_cancellable_new());
    g_timeout_add_full(
        G_PRIORITY_DEFAULT, kPatience,
        [](gpointer cancellable) -> gboolean {
            g_cancellable_cancel(static_cast<GCancellable*>(cancellable));
            return G_SOURCE_REMOVE;
        },
        g_object_ref(given.get()), g_object_unref);
    return given;
}

}  // namespace

// What an answer finds its way back by.
struct Inhibitor::Call {
    std::weak_ptr<Inhibitor*> inhibitor;
    unsigned start = 0;
    std::size_t service = 0;

    static Call* of(Inhibitor& inhibitor, std::size_t service = 0) {
        return new Call{inhibitor.self_, inhibitor.start_, service};
    }
    bool isCurrent(const Inhibitor& owner) const {
        return owner.isStarted_ && owner.start_ == start;
    }
};

Inhibitor::Inhibitor(std::string applicationName, std::string reason, std::function<void()> changed)
    : applicationName_(std::move(applicationName)), reason_(std::move(reason)),
      changed_(std::move(changed)) {}

Inhibitor::~Inhibitor() {
    stop();
    self_.reset();
    if (sessionBus_ && closedSignal_) g_signal_handler_disconnect(sessionBus_.get(), closedSignal_);
}

void Inhibitor::start() {
    if (isStarted_) return;
    isStarted_ = true;
    ++start_;
    refusals_.clear();
    session_ = State::Asked;
    system_ = State::Asked;
    pause_ = kFirstPause;
    connectSession();
    connectSystem();
}

void Inhibitor::connectSystem() {
    const auto inTime = givenUpInTime();
    g_bus_get(
        G_BUS_TYPE_SYSTEM, inTime.get(),
        [](GObject*, GAsyncResult* result, gpointer data) {
            const std::unique_ptr<Call> call(static_cast<Call*>(data));
            GioError error;
            const ObjectPointer<GDBusConnection> bus(g_bus_get_finish(result, error.address()));
            // The bus may end: the tool goes on, and says what it cannot do.
            if (bus) g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
            const auto owner = call->inhibitor.lock();
            if (owner && call->isCurrent(**owner)) (*owner)->systemConnected(bus.get(), error);
        },
        Call::of(*this));
}

void Inhibitor::stop() {
    if (!isStarted_) return;
    isStarted_ = false;
    unwatchServices();
    if (const guint ended = std::exchange(retry_, 0)) g_source_remove(ended);
    if (grant_) giveBack(grantedBy_, std::exchange(grant_, nullptr).get());
    sleepLock_.reset();
    session_ = State::Off;
    system_ = State::Off;
}

// ---- the session

void Inhibitor::connectSession() {
    if (sessionBus_) {
        watchServices();
        askSession(0);
        return;
    }
    const std::string address = sessionBusAddress();
    const auto inTime = givenUpInTime();
    g_dbus_connection_new_for_address(
        // Fails like any other that cannot be used.
        address.empty() ? "disabled:" : address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, inTime.get(),
        [](GObject*, GAsyncResult* result, gpointer data) {
            const std::unique_ptr<Call> call(static_cast<Call*>(data));
            GioError error;
            ObjectPointer<GDBusConnection> bus(
                g_dbus_connection_new_for_address_finish(result, error.address()));
            if (bus) g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
            const auto owner = call->inhibitor.lock();
            if (owner && call->isCurrent(**owner))
                (*owner)->sessionConnected(std::move(bus), error);
        },
        Call::of(*this));
}

void Inhibitor::sessionConnected(ObjectPointer<GDBusConnection> connection, GioError& error) {
    if (!connection) {
        // A silent bus may speak again; one that is not there is not waited for.
        if (error.isCancelled()) isLost_ = true;
        if (isLost_) connectSessionLater();
        if (session_ == State::Refused) return;  // has been told
        refuse("the session's bus", error);
        settle(session_, State::Refused);
        return;
    }
    isLost_ = false;
    pause_ = kFirstPause;
    sessionBus_ = std::move(connection);
    closedSignal_ = g_signal_connect_swapped(
        sessionBus_.get(), "closed", G_CALLBACK(+[](Inhibitor* self) { self->sessionBusClosed(); }),
        this);
    session_ = State::Asked;
    watchServices();
    askSession(0);
}

void Inhibitor::connectSessionLater() {
    retry_ = g_timeout_add(
        pause_,
        [](gpointer data) -> gboolean {
            auto* const self = static_cast<Inhibitor*>(data);
            self->retry_ = 0;
            self->connectSession();
            return G_SOURCE_REMOVE;
        },
        this);
    pause_ = std::min(2 * pause_, kLongestPause);
}

void Inhibitor::askSession(std::size_t index) {
    if (index == kServices.size()) {
        settle(session_, State::Refused);
        return;
    }
    const SessionService& service = kServices[index];
    g_dbus_connection_call(
        sessionBus_.get(), service.name, service.path, service.interface, "Inhibit",
        service.request(applicationName_.c_str(), reason_.c_str()),
        G_VARIANT_TYPE(service.answerType), service.flags, kPatience, nullptr,
        [](GObject* bus, GAsyncResult* result, gpointer data) {
            const std::unique_ptr<Call> call(static_cast<Call*>(data));
            GioError error;
            const VariantPointer answer(
                g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, error.address()));
            const auto owner = call->inhibitor.lock();
            if (!owner) return;
            if (call->isCurrent(**owner)) {
                (*owner)->sessionAnswered(call->service, answer.get(), error);
            } else if (answer) {
                (*owner)->giveBack(call->service, answer.get());
            }
        },
        Call::of(*this, index));
}

void Inhibitor::sessionAnswered(std::size_t service, GVariant* answer, GioError& error) {
    if (!answer) {
        refuse(kServices[service].name, error);
        if (sessionBus_) askSession(service + 1);
        return;
    }
    grantedBy_ = service;
    grant_.reset(g_variant_ref(answer));
    settle(session_, State::Granted);
}

void Inhibitor::giveBack(std::size_t index, GVariant* answer) {
    if (!sessionBus_) return;
    const SessionService& service = kServices[index];
    if (service.giveBack) {
        g_dbus_connection_call(sessionBus_.get(), service.name, service.path, service.interface,
                               service.giveBack, answer, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START,
                               kPatience, nullptr, nullptr, nullptr);
        return;
    }
    const char* request = nullptr;
    g_variant_get(answer, "(&o)", &request);
    g_dbus_connection_call(sessionBus_.get(), service.name, request,
                           "org.freedesktop.portal.Request", "Close", nullptr, nullptr,
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, kPatience, nullptr, nullptr, nullptr);
}

void Inhibitor::watchServices() {
    unwatchServices();
    for (std::size_t i = 0; i < kServices.size(); ++i) {
        watches_[i] = g_bus_watch_name_on_connection(
            sessionBus_.get(), kServices[i].name, G_BUS_NAME_WATCHER_FLAGS_NONE,
            [](GDBusConnection*, const char*, const char*, gpointer self) {
                static_cast<Inhibitor*>(self)->serviceAppeared();
            },
            [](GDBusConnection*, const char* name, gpointer self) {
                static_cast<Inhibitor*>(self)->serviceVanished(name);
            },
            this, nullptr);
    }
}

void Inhibitor::unwatchServices() {
    for (guint& watch : watches_) {
        if (const guint ended = std::exchange(watch, 0)) g_bus_unwatch_name(ended);
    }
}

void Inhibitor::serviceAppeared() {
    if (session_ != State::Refused) return;
    session_ = State::Asked;
    askSession(0);
}

void Inhibitor::serviceVanished(const std::string& name) {
    if (session_ != State::Granted || name != kServices[grantedBy_].name) return;
    grant_.reset();
    session_ = State::Asked;
    if (g_dbus_connection_is_closed(sessionBus_.get())) return;
    askSession(0);
}

void Inhibitor::sessionBusClosed() {
    g_signal_handler_disconnect(sessionBus_.get(), std::exchange(closedSignal_, 0));
    unwatchServices();
    sessionBus_.reset();
    grant_.reset();
    isLost_ = true;
    if (!isStarted_) return;
    pause_ = kFirstPause;
    connectSessionLater();
    refusals_ += (refusals_.empty() ? "" : "; ") + std::string("the session's bus is gone");
    settle(session_, State::Refused);
}

// ---- the system

void Inhibitor::systemConnected(GDBusConnection* connection, GioError& failure) {
    if (!connection) {
        refuse("the system's bus", failure);
        settle(system_, State::Refused);
        return;
    }
    g_dbus_connection_call_with_unix_fd_list(
        connection, kLoginManager, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
        "Inhibit",
        g_variant_new("(ssss)", "idle:sleep", applicationName_.c_str(), reason_.c_str(), "block"),
        G_VARIANT_TYPE("(h)"), G_DBUS_CALL_FLAGS_NONE, kPatience, nullptr, nullptr,
        [](GObject* bus, GAsyncResult* result, gpointer data) {
            const std::unique_ptr<Call> call(static_cast<Call*>(data));
            GioError error;
            GUnixFDList* list = nullptr;
            const VariantPointer answer(g_dbus_connection_call_with_unix_fd_list_finish(
                G_DBUS_CONNECTION(bus), &list, result, error.address()));
            // What is not taken out is closed with the list, which gives it back.
            const ObjectPointer<GUnixFDList> descriptors(list);
            const auto owner = call->inhibitor.lock();
            if (owner && call->isCurrent(**owner))
                (*owner)->systemAnswered(answer.get(), descriptors.get(), error);
        },
        Call::of(*this));
}

void Inhibitor::systemAnswered(GVariant* answer, GUnixFDList* descriptors, GioError& error) {
    if (answer && descriptors) {
        gint32 index = 0;
        g_variant_get(answer, "(h)", &index);
        sleepLock_.reset(g_unix_fd_list_get(descriptors, index, error.address()));
    }
    if (!sleepLock_) refuse(kLoginManager, error);
    settle(system_, sleepLock_ ? State::Granted : State::Refused);
}

// ----

void Inhibitor::refuse(const std::string& who, GioError& error) {
    refusals_ += (refusals_.empty() ? "" : "; ") + who + ": " + error.message();
}

void Inhibitor::settle(State& state, State to) {
    state = to;
    changed_();
}

}  // namespace utilia::tools
