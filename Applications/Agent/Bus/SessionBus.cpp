#include "Applications/Agent/Bus/SessionBus.h"

#include <algorithm>
#include <utility>

#include <QCoreApplication>
#include <QDBusError>
#include <QFileInfo>
#include <QPointer>
#include <QUrl>

#include "Applications/Desktop/BusProbe.h"
#include "Applications/Desktop/BusThread.h"
#include "Applications/Desktop/ToolkitBus.h"
#include "Common/Logging/Log.h"

namespace utilia::agent {
namespace {

using namespace std::chrono_literals;

constexpr auto kFirstPause = 250ms;
constexpr std::chrono::milliseconds kLongestPause = 30s;

QString address() { return qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS"); }

// The socket's path in an address such as "unix:path=/run/user/1000/bus,guid=…".
QString socketIn(const QString& address) {
    constexpr QLatin1String kPath("unix:path=");
    if (!address.startsWith(kPath)) return {};
    const QString first = address.section(QLatin1Char(';'), 0, 0).section(QLatin1Char(','), 0, 0);
    return QUrl::fromPercentEncoding(first.mid(kPath.size()).toUtf8());
}

}  // namespace

SessionBus::SessionBus() : pause_(kFirstPause) {
    retry_.setSingleShot(true);
    connect(&retry_, &QTimer::timeout, this, [this] { connectNow(); });
    connect(&sockets_, &QFileSystemWatcher::directoryChanged, this, [this] {
        if (!isMissing()) return;
        pause_ = kFirstPause;
        if (QFileInfo::exists(socket_)) {
            connectNow();
        } else if (sockets_.directories().isEmpty()) {
            retry_.start(pause_);  // the folder itself is gone, and announces nothing any more
        }
    });
}

void SessionBus::start(Handlers handlers) {
    handlers_ = std::move(handlers);
    if (address().isEmpty() || address().startsWith(QLatin1String("disabled:"))) {
        fail(QStringLiteral("there is no session bus"));
        retry_.stop();
        return;
    }
    socket_ = socketIn(address());
    connectNow();
}

void SessionBus::connectNow() {
    if (std::exchange(isBusy_, true)) return;
    retry_.stop();
    const QString name = QStringLiteral("korvane-utilia-%1").arg(++attempts_);
    // The thread may still wait for the bus when the agent ends.
    const auto done = [self = QPointer<SessionBus>(this)](const QString& connection) {
        if (self) self->finish(connection);
    };
    const bool isTalking = desktop::startBusThread([address = address(), name, done] {
        const bool isSilent = desktop::isBusSilent(address.toStdString(), desktop::kBusPatience);
        if (!isSilent) QDBusConnection::connectToBus(address, name);
        QMetaObject::invokeMethod(
            qApp, [done, connection = isSilent ? QString() : name] { done(connection); },
            Qt::QueuedConnection);
    });
    if (!isTalking) {
        isBusy_ = false;
        fail(QStringLiteral("no thread is to be had"));
    }
}

void SessionBus::finish(const QString& name) {
    isBusy_ = false;
    if (name.isEmpty()) {
        fail(QStringLiteral("the session bus does not answer"));
        return;
    }
    QDBusConnection bus(name);
    // Said by the library itself, and the only way to hear of it.
    bus.connect(QString(), QStringLiteral("/org/freedesktop/DBus/Local"),
                QStringLiteral("org.freedesktop.DBus.Local"), QStringLiteral("Disconnected"), this,
                SLOT(disconnected()));
    if (!bus.isConnected()) {
        const QString why = bus.lastError().message();
        QDBusConnection::disconnectFromBus(name);
        fail(why);
        return;
    }
    name_ = name;
    // Every file that anybody makes beside the socket would wake the agent.
    if (const QStringList watched = sockets_.directories(); !watched.isEmpty())
        sockets_.removePaths(watched);
    if (std::exchange(state_, State::Connected) != State::Connecting)
        KULogVariadic("Agent: the session bus is there");
    pause_ = kFirstPause;
    handlers_.connected(bus);
}

void SessionBus::disconnected() {
    if (state_ != State::Connected) return;
    state_ = State::Lost;
    KULogVariadic("Agent: the session bus is lost; the status icon comes back with it");
    // Not from inside its own message.
    QMetaObject::invokeMethod(
        this, [name = name_] { QDBusConnection::disconnectFromBus(name); }, Qt::QueuedConnection);
    watchSocket();
    retry_.start(pause_);
    handlers_.missed();
}

void SessionBus::fail(const QString& why) {
    watchSocket();
    // A socket that is not there announces itself.
    const bool isAnnounced = !sockets_.directories().isEmpty() && !QFileInfo::exists(socket_);
    if (!isAnnounced) retry_.start(pause_);
    pause_ = std::min(2 * pause_, kLongestPause);
    if (state_ != State::Connecting) return;  // has been told
    state_ = State::Missing;
    KULogVariadic("Agent: no status icon, and nothing is published: %@", why.toStdString());
    handlers_.missed();
}

void SessionBus::watchSocket() {
    const QString folder = QFileInfo(socket_).path();
    if (!socket_.isEmpty() && !sockets_.directories().contains(folder)) sockets_.addPath(folder);
}

}  // namespace utilia::agent
