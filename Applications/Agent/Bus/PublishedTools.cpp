#include "Applications/Agent/Bus/PublishedTools.h"

#include <utility>

#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

#include "Common/Logging/Log.h"

namespace utilia::agent {
namespace {

QString condition(ToolEntry::Condition condition) {
    switch (condition) {
    case ToolEntry::Condition::Ready:
        return QStringLiteral("ready");
    case ToolEntry::Condition::Restricted:
        return QStringLiteral("restricted");
    case ToolEntry::Condition::Damaged:
        return QStringLiteral("damaged");
    case ToolEntry::Condition::Missing:
        return QStringLiteral("missing");
    }
    return {};
}

// Whoever has the name keeps it: a second agent is a mistake of somebody's, and the first one serves.
constexpr uint kDoNotQueue = 4;
constexpr uint kIsOwner = 1;  // the bus's answer

}  // namespace

PublishedTools::PublishedTools(QObject* place, ToolList& tools)
    : QDBusAbstractAdaptor(place), tools_(tools) {
    qDBusRegisterMetaType<ToolMaps>();
    observation_ = tools_.observe([this](const ToolList::Change& change) {
        for (const std::string& identifier : change.gone) {
            told_.erase(identifier);
            Q_EMIT ToolRemoved(QString::fromStdString(identifier));
        }
        for (const std::string& identifier : change.tools) {
            const ToolEntry* const tool = tools_.find(identifier);
            if (!tool) continue;
            // Pictures are not told of.
            const QVariantMap entry = describe(*tool);
            if (std::exchange(told_[identifier], entry) != entry) Q_EMIT ToolChanged(entry);
        }
    });
}

void PublishedTools::publish(QDBusConnection bus) {
    if (!bus.registerObject(QStringLiteral("/com/korvane/utilia/Tools"), parent(),
                            QDBusConnection::ExportAdaptors)) {
        KULogVariadic("Agent: the list of tools cannot be published: the object is refused");
        return;
    }
    QDBusMessage request = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("RequestName"));
    request << QStringLiteral("com.korvane.utilia") << kDoNotQueue;
    auto* const pending = new QDBusPendingCallWatcher(bus.asyncCall(request), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this, [pending] {
        pending->deleteLater();
        const QDBusPendingReply<uint> reply = *pending;
        if (!reply.isError() && reply.value() == kIsOwner) return;
        const QString why =
            reply.isError() ? reply.error().message() : QStringLiteral("it is somebody else's");
        KULogVariadic("Agent: the list of tools is not published: the name com.korvane.utilia: %@",
                      why.toStdString());
    });
}

QVariantMap PublishedTools::describe(const ToolEntry& tool) {
    return {{QStringLiteral("identifier"), QString::fromStdString(tool.identifier)},
            {QStringLiteral("name"), QString::fromStdString(tool.name)},
            {QStringLiteral("path"), QString::fromStdString(tool.path)},
            {QStringLiteral("condition"), condition(tool.condition)},
            {QStringLiteral("reason"), QString::fromStdString(tool.reason)},
            {QStringLiteral("running"), tool.isRunning},
            {QStringLiteral("status"), static_cast<qulonglong>(tool.status)},
            {QStringLiteral("text"), QString::fromStdString(tool.menuText)}};
}

ToolMaps PublishedTools::List() const {
    ToolMaps all;
    for (const ToolEntry& tool : tools_.entries()) all.append(describe(tool));
    return all;
}

}  // namespace utilia::agent
