#pragma once

#include <map>
#include <string>

#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QList>
#include <QString>
#include <QVariantMap>

#include "Applications/Agent/Model/ToolList.h"

namespace utilia::agent {

using ToolMaps = QList<QVariantMap>;

// What other programs of the session see of the agent's list: the object /com/korvane/utilia/Tools of the name
// com.korvane.utilia. Documentation/Formats/PublishedTools.md describes it.
//
// Threads: the main thread. The list outlives this object.
class PublishedTools final : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.korvane.utilia.Tools1")
public:
    // `place` becomes the object on the bus.
    PublishedTools(QObject* place, ToolList& tools);

    // Puts the object on the bus and asks for the name, without waiting.
    void publish(QDBusConnection bus);

    // One tool, as the methods and signals tell of it.
    static QVariantMap describe(const ToolEntry& tool);

public Q_SLOTS:
    // All of them, in the order of the agent's menu.
    utilia::agent::ToolMaps List() const;

Q_SIGNALS:
    // A tool is new, or something that List() says of it is different: all of that.
    void ToolChanged(const QVariantMap& tool);
    // A tool is no longer in the list; its identifier.
    void ToolRemoved(const QString& identifier);

private:
    ToolList& tools_;
    std::map<std::string, QVariantMap> told_;  // the entries as they are known
    Handle observation_;
};

}  // namespace utilia::agent

Q_DECLARE_METATYPE(utilia::agent::ToolMaps)
