#include "Applications/Desktop/ToolkitBus.h"

#include <QAccessible>
#include <QDBusConnection>

#include "Applications/Desktop/BusProbe.h"

namespace utilia::desktop {
namespace {

constexpr const char* kName = "DBUS_SESSION_BUS_ADDRESS";

// As the bus library has it, which also takes the usual place where none is named.
QByteArray busAddress() {
    return qEnvironmentVariableIsEmpty(kName) ? QByteArray("unix:runtime=yes") : qgetenv(kName);
}

}  // namespace

ToolkitBus::ToolkitBus() {
    const QByteArray address = busAddress();
    if (!isBusSilent({address.constData(), static_cast<std::size_t>(address.size())}, kBusPatience))
        return;
    hidden_ = {qEnvironmentVariableIsSet(kName), qgetenv(kName)};
    qputenv(kName, "disabled:");
}

void ToolkitBus::settle() {
    QDBusConnection::sessionBus();
    // What speaks to screen readers has more to ask of a bus, once, and would do that when the first window is made.
    QAccessible::isActive();
    if (!hidden_) return;
    hidden_->isNamed ? qputenv(kName, hidden_->address) : qunsetenv(kName);
    hidden_.reset();
}

}  // namespace utilia::desktop
