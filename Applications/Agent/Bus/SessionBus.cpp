#include "Applications/Agent/Bus/SessionBus.h"

#include <system_error>
#include <thread>
#include <utility>

#include <QCoreApplication>
#include <QDBusError>
#include <QPointer>

#include "Common/Logging/Log.h"

namespace utilia::agent {
namespace {

QString connectionName() { return QStringLiteral("korvane-utilia"); }

}  // namespace

void SessionBus::fail(const QString& why) {
    hasFailed_ = true;
    KULogVariadic("Agent: no status icon, and nothing is published: %@", why.toStdString());
    if (lost_) lost_();
}

void SessionBus::connect(std::function<void(QDBusConnection)> whenThere) {
    const QString address = qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS");
    if (address.isEmpty() || address.startsWith(QLatin1String("disabled:"))) {
        fail(QStringLiteral("there is no session bus"));
        return;
    }
    // The thread may still wait for the bus when the agent ends.
    const auto finish = [self = QPointer<SessionBus>(this), whenThere = std::move(whenThere)] {
        if (!self) return;
        const QDBusConnection bus(connectionName());
        if (!bus.isConnected()) {
            self->fail(bus.lastError().message());
            return;
        }
        whenThere(bus);
    };
    try {
        std::thread([address, finish] {
            QDBusConnection::connectToBus(address, connectionName());
            QMetaObject::invokeMethod(qApp, finish, Qt::QueuedConnection);
        }).detach();
    } catch (const std::system_error& error) {
        fail(QString::fromLocal8Bit(error.what()));
    }
}

}  // namespace utilia::agent
