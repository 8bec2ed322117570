#include "Common/Platform/Linux/Modules/Desktop/NotificationBus.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <unistd.h>

#include "Common/Platform/Linux/Modules/Desktop/ModuleThread.h"
#include "Common/Platform/Linux/Modules/ServiceThread.h"

// The thread works in turns. Whoever asks for something waits until a turn that began after the
// question has ended, or until his time is over. A turn does everything that has gathered: it
// connects, makes the bus's rules those that are wanted, and sends. It may hang in any of this for
// as long as the bus does; only the first who asks meanwhile waits for nothing, as the others then
// know.
//
// A signal counts as sent when the kernel has it: the bus reads it even if this process ends at
// once. What is to be heard counts as such when the bus has answered, so that nothing that is
// posted after an observer was added can be missed.
//
// The connection is this module's own. The one that GIO shares in a process belongs to whoever asks
// first, and ends the process with SIGTERM when the bus goes away.

namespace utilia::platform::desktop {
namespace {

constexpr gint64 kFirstPause = G_USEC_PER_SEC / 4;
constexpr gint64 kLongestPause = 30 * G_USEC_PER_SEC;
// Different names that wait for a bus that hangs.
constexpr std::size_t kMostOutgoing = 64;

struct VariantUnref {
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
using VariantPtr = std::unique_ptr<GVariant, VariantUnref>;

std::string objectPath(const NotificationName& name) {
    std::string path = "/" + name.interface;
    std::replace(path.begin(), path.end(), '.', '/');
    return path;
}

std::string matchRule(const NotificationName& name) {
    return "type='signal',path='" + objectPath(name) + "',interface='" + name.interface +
           "',member='" + name.member + "'";
}

std::string textOf(GError* error) {
    const ErrorPtr owned(error);
    return owned ? owned->message : "unknown reason";
}

bool isSignalName(const NotificationName& name) {
    return g_dbus_is_interface_name(name.interface.c_str()) &&
           g_dbus_is_member_name(name.member.c_str());
}

// Whoever listens at the address has to be this user: an address can be left over from another
// login, or be one at which anybody may listen.
bool isOwnUsersBus(GDBusConnection* connection) {
    GIOStream* const stream = g_dbus_connection_get_stream(connection);
    if (!G_IS_SOCKET_CONNECTION(stream)) return false;
    const ObjectPtr<GCredentials> listener(g_socket_get_credentials(
        g_socket_connection_get_socket(G_SOCKET_CONNECTION(stream)), nullptr));
    return listener && g_credentials_get_unix_user(listener.get(), nullptr) == geteuid();
}

}  // namespace

NotificationBus& NotificationBus::shared() {
    static NotificationBus* const instance = new NotificationBus;
    return *instance;
}

NotificationBus::Outcome NotificationBus::observe(const std::string& address,
                                                  const NotificationName& name,
                                                  std::chrono::milliseconds timeout,
                                                  UtiliaNotificationHeard heard) {
    if (!isSignalName(name)) return {UtiliaNotificationsRefused, "no name of a notification"};
    if (isInForkedChild()) return {UtiliaNotificationsRefused, "not in a forked child"};
    std::unique_lock lock(mutex_);
    if (const std::string failure = start(); !failure.empty())
        return {UtiliaNotificationsRefused, failure};
    heard_ = heard;
    address_ = address;
    ++wanted_[name];
    return waitForTurn(lock, timeout);
}

void NotificationBus::ignore(const NotificationName& name) {
    if (isInForkedChild()) return;
    const std::lock_guard guard(mutex_);
    const auto found = wanted_.find(name);
    if (found == wanted_.end() || --found->second > 0) return;
    wanted_.erase(found);
    ++asked_;
    work_->fireSoon();
}

NotificationBus::Outcome NotificationBus::post(const std::string& address,
                                               const NotificationName& name,
                                               std::chrono::milliseconds timeout) {
    if (!isSignalName(name)) return {UtiliaNotificationsRefused, "no name of a notification"};
    if (isInForkedChild()) return {UtiliaNotificationsRefused, "not in a forked child"};
    std::unique_lock lock(mutex_);
    if (const std::string failure = start(); !failure.empty())
        return {UtiliaNotificationsRefused, failure};
    address_ = address;
    const bool isWaitingAlready =
        isLate_ && std::find(outgoing_.begin(), outgoing_.end(), name) != outgoing_.end();
    if (!isWaitingAlready) {
        if (outgoing_.size() >= kMostOutgoing)
            return {UtiliaNotificationsUnreachable, "too many notifications wait for the bus"};
        outgoing_.push_back(name);
    }
    return waitForTurn(lock, timeout);
}

bool NotificationBus::isInForkedChild() const { return process_ != 0 && process_ != getpid(); }

std::string NotificationBus::start() {
    if (process_ != 0) return {};
    if (const int error = descriptorsMissing(); error != 0)
        return std::string("descriptors: ") + std::strerror(error);
    if (!context_) context_ = g_main_context_new();
    if (!work_) work_ = std::make_unique<WakeUp>(context_, [this] { serve(); });
    pauseBeforeRetry_ = kFirstPause;
    process_ = getpid();
    if (const int error = startServiceThread("utilia-bus", [this] { run(); }); error != 0) {
        process_ = 0;
        return std::string("start thread: ") + std::strerror(error);
    }
    return {};
}

NotificationBus::Outcome NotificationBus::waitForTurn(std::unique_lock<std::mutex>& lock,
                                                      std::chrono::milliseconds timeout) {
    const std::uint64_t turn = ++asked_;
    work_->fireSoon();
    const auto isServed = [this, turn] { return served_ >= turn; };
    if (!isLate_) turnEnded_.wait_for(lock, timeout, isServed);
    if (!isServed()) {
        isLate_ = true;
        return {UtiliaNotificationsLate, "the bus does not answer"};
    }
    if (!failure_.empty()) return {UtiliaNotificationsUnreachable, failure_};
    return {UtiliaNotificationsDone, {}};
}

void NotificationBus::run() {
    g_main_context_push_thread_default(context_);
    for (;;) g_main_context_iteration(context_, TRUE);
}

void NotificationBus::serve() {
    const Turn turn = beginTurn();
    std::string failure = attempt(turn);
    // A bus that has gone away may only be noticed by using it, and a new one may be there.
    const bool isLost = connection_ && g_dbus_connection_is_closed(connection_.get());
    if (!failure.empty() && isLost) failure = attempt(turn);
    endTurn(turn, std::move(failure));
}

std::string NotificationBus::attempt(const Turn& turn) {
    if (connection_ && g_dbus_connection_is_closed(connection_.get())) disconnect();
    if (!connection_) {
        if (turn.wanted.empty() && turn.outgoing.empty()) return {};
        if (std::string failure = connect(turn.address); !failure.empty()) return failure;
    }
    std::string failure = subscribe(turn.wanted);
    const std::string sendFailure = send(turn.outgoing);
    return sendFailure.empty() ? failure : sendFailure;
}

NotificationBus::Turn NotificationBus::beginTurn() {
    const std::lock_guard guard(mutex_);
    Turn turn{asked_, address_, std::exchange(outgoing_, {}), {}};
    for (const auto& [name, count] : wanted_) turn.wanted.push_back(name);
    return turn;
}

void NotificationBus::endTurn(const Turn& turn, std::string failure) {
    const std::lock_guard guard(mutex_);
    if (failure.empty()) {
        pauseBeforeRetry_ = kFirstPause;
    } else if (!wanted_.empty() && asked_ == turn.number) {
        work_->fireAt(g_get_monotonic_time() + pauseBeforeRetry_);
        pauseBeforeRetry_ = std::min(2 * pauseBeforeRetry_, kLongestPause);
    }
    served_ = turn.number;
    failure_ = std::move(failure);
    isLate_ = false;
    turnEnded_.notify_all();
}

std::string NotificationBus::connect(const std::string& address) {
    if (const int error = descriptorsMissing(); error != 0)
        return std::string("descriptors: ") + std::strerror(error);
    GError* error = nullptr;
    ObjectPtr<GDBusConnection> made(g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error));
    if (!made) return textOf(error);
    g_dbus_connection_set_exit_on_close(made.get(), FALSE);
    if (!isOwnUsersBus(made.get())) {
        g_dbus_connection_close_sync(made.get(), nullptr, nullptr);
        return "the bus at " + address + " is not this user's";
    }
    connection_ = std::move(made);
    g_signal_connect_swapped(connection_.get(), "closed", G_CALLBACK(&NotificationBus::closed),
                             this);
    return {};
}

std::string NotificationBus::subscribe(const std::vector<NotificationName>& wanted) {
    for (auto each = subscriptions_.begin(); each != subscriptions_.end();) {
        if (std::find(wanted.begin(), wanted.end(), each->first) != wanted.end()) {
            ++each;
            continue;
        }
        g_dbus_connection_signal_unsubscribe(connection_.get(), each->second);
        g_dbus_connection_call(connection_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "RemoveMatch",
                               g_variant_new("(s)", matchRule(each->first).c_str()), nullptr,
                               G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
        each = subscriptions_.erase(each);
    }
    for (const NotificationName& name : wanted) {
        if (subscriptions_.contains(name)) continue;
        if (const int error = descriptorsMissing(); error != 0)
            return std::string("descriptors: ") + std::strerror(error);
        const guint subscription = g_dbus_connection_signal_subscribe(
            connection_.get(), nullptr, name.interface.c_str(), name.member.c_str(),
            objectPath(name).c_str(), nullptr, G_DBUS_SIGNAL_FLAGS_NO_MATCH_RULE,
            &NotificationBus::signalled, this, nullptr);
        GError* error = nullptr;
        const VariantPtr added(g_dbus_connection_call_sync(
            connection_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
            "org.freedesktop.DBus", "AddMatch", g_variant_new("(s)", matchRule(name).c_str()),
            nullptr, G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, &error));
        if (!added) {
            g_dbus_connection_signal_unsubscribe(connection_.get(), subscription);
            return textOf(error);
        }
        subscriptions_[name] = subscription;
    }
    return {};
}

std::string NotificationBus::send(const std::vector<NotificationName>& outgoing) {
    if (outgoing.empty()) return {};
    GError* error = nullptr;
    for (const NotificationName& name : outgoing) {
        if (!g_dbus_connection_emit_signal(connection_.get(), nullptr, objectPath(name).c_str(),
                                           name.interface.c_str(), name.member.c_str(), nullptr,
                                           &error)) {
            return textOf(error);
        }
    }
    if (!g_dbus_connection_flush_sync(connection_.get(), nullptr, &error)) return textOf(error);
    return {};
}

void NotificationBus::disconnect() {
    g_signal_handlers_disconnect_by_data(connection_.get(), this);
    for (const auto& [name, subscription] : subscriptions_)
        g_dbus_connection_signal_unsubscribe(connection_.get(), subscription);
    subscriptions_.clear();
    connection_.reset();
}

void NotificationBus::closed(NotificationBus* self) {
    const std::lock_guard guard(self->mutex_);
    self->work_->fireSoon();
}

void NotificationBus::signalled(GDBusConnection*, const char*, const char*, const char* interface,
                                const char* member, GVariant* parameters, gpointer self) {
    // A notification carries nothing; what does is somebody else's signal.
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE_UNIT)) return;
    if (const auto heard = static_cast<NotificationBus*>(self)->heard_.load())
        heard(interface, member);
}

}  // namespace utilia::platform::desktop
