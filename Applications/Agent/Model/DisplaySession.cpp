#include "Applications/Agent/Model/DisplaySession.h"

#include <utility>

#include <gio/gio.h>
#include <unistd.h>

#include "Common/Foundation/Handle.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/RunLoop.h"

// Two questions, since the path of the user's object is the login manager's affair: GetUser, then the user's property
// Display. Both are asked without waiting on a connection of our own: the one that GIO shares in a process belongs to
// whoever asks first. The main loop is GLib's, where GIO gives its answers.
//
// Each call under way holds the question. Whoever gives it up cancels the calls, and their answers are then passed over.

namespace utilia::agent {
namespace {

constexpr const char* kLoginManager = "org.freedesktop.login1";
constexpr const char* kManagerPath = "/org/freedesktop/login1";

struct Unref {
    void operator()(void* object) const { g_object_unref(object); }
};
struct VariantUnref {
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using Variant = std::unique_ptr<GVariant, VariantUnref>;

// Says why GIO failed, and forgets it.
std::string taken(GError* error) {
    if (!error) return "no reason";
    g_dbus_error_strip_remote_error(error);
    std::string why = error->message;
    g_error_free(error);
    return why;
}

}  // namespace

struct DisplaySession::Question : std::enable_shared_from_this<Question> {
    using Next = void (Question::*)(const Variant&);
    // What a call under way carries.
    struct Call {
        std::shared_ptr<Question> question;
        Next next;
    };

    ~Question() { g_object_unref(cancelled); }

    void start(std::chrono::nanoseconds time) {
        patience = platform::Timer::scheduledTimer(time, false, [self = weak_from_this()] {
            if (const auto question = self.lock()) question->fail("it does not answer");
        });
        GError* error = nullptr;
        char* const address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
        if (!address) return failLater(taken(error));
        g_dbus_connection_new_for_address(
            address,
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, cancelled, &Question::connected, new Call{shared_from_this(), nullptr});
        g_free(address);
    }
    static void connected(GObject*, GAsyncResult* result, gpointer data) {
        const std::unique_ptr<Call> done(static_cast<Call*>(data));
        GError* error = nullptr;
        GDBusConnection* const made = g_dbus_connection_new_for_address_finish(result, &error);
        Question& self = *done->question;
        self.bus.reset(made);
        if (!made) return self.fail(taken(error));
        g_dbus_connection_set_exit_on_close(made, FALSE);
        self.call(kManagerPath, "org.freedesktop.login1.Manager", "GetUser",
                  g_variant_new("(u)", static_cast<guint32>(getuid())), "(o)", &Question::hasUser);
    }
    void call(const char* path, const char* interface, const char* method, GVariant* arguments,
              const char* kind, Next next) {
        if (!answer) return g_variant_unref(g_variant_ref_sink(arguments));
        g_dbus_connection_call(bus.get(), kLoginManager, path, interface, method, arguments,
                               G_VARIANT_TYPE(kind), G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, cancelled,
                               &Question::called, new Call{shared_from_this(), next});
    }
    static void called(GObject* bus, GAsyncResult* result, gpointer data) {
        const std::unique_ptr<Call> done(static_cast<Call*>(data));
        GError* error = nullptr;
        const Variant told(
            g_dbus_connection_call_finish(reinterpret_cast<GDBusConnection*>(bus), result, &error));
        Question& self = *done->question;
        if (!told) return self.fail(taken(error));
        (self.*done->next)(told);
    }
    void hasUser(const Variant& told) {
        const char* path = nullptr;
        g_variant_get(told.get(), "(&o)", &path);
        call(path, "org.freedesktop.DBus.Properties", "Get",
             g_variant_new("(ss)", "org.freedesktop.login1.User", "Display"), "(v)",
             &Question::hasDisplay);
    }
    void hasDisplay(const Variant& told) {
        const Variant value(g_variant_get_child_value(told.get(), 0));
        const Variant display(g_variant_get_variant(value.get()));
        if (!g_variant_is_of_type(display.get(), G_VARIANT_TYPE("(so)")))
            return fail("its answer is none");
        const char* session = nullptr;
        const char* path = nullptr;
        g_variant_get(display.get(), "(&s&o)", &session, &path);
        if (!*session) return fail("this user has no graphical session");
        end(session);
    }
    void fail(const std::string& why) {
        if (!answer) return;
        KULogVariadic("Login: the login manager does not tell the session: %@", why);
        end(std::nullopt);
    }
    void failLater(std::string why) {
        platform::MainQueue::async([self = weak_from_this(), why = std::move(why)] {
            if (const auto question = self.lock()) question->fail(why);
        });
    }
    void end(const std::optional<std::string>& session) {
        const auto self = shared_from_this();
        patience.reset();
        g_cancellable_cancel(cancelled);
        bus.reset();
        if (const auto tell = std::exchange(answer, nullptr)) tell(session);
    }

    Answer answer;  // null once it is given, or nobody waits for it
    GCancellable* const cancelled = g_cancellable_new();
    std::unique_ptr<GDBusConnection, Unref> bus;
    Handle patience;
};

DisplaySession::~DisplaySession() {
    if (!question_) return;
    question_->answer = nullptr;
    question_->end(std::nullopt);
}

void DisplaySession::ask(Answer answer, std::chrono::nanoseconds patience) {
    question_ = std::make_shared<Question>();
    question_->answer = std::move(answer);
    question_->start(patience);
}

}  // namespace utilia::agent
