#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include <QDBusAbstractAdaptor>
#include <QDBusVariant>

#include "Applications/Agent/Model/ToolList.h"
#include "Applications/Agent/Tray/TrayTypes.h"

namespace utilia::agent {

// The menu of the status icon, as panels ask for it on the bus (dbusmenu, version 3): the tools, and below them what the
// agent itself offers.
//
// A tool that is active or permanent is marked with a check, set while it runs. Its text follows its name. A tool that
// cannot be used is grey and says why.
//
// Only what differs is told: changed items with their changed properties, or a new layout when items have come or gone.
//
// Threads: the main thread. The list outlives this object.
class TrayMenu final : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.canonical.dbusmenu")
    Q_PROPERTY(uint Version READ version CONSTANT)
    Q_PROPERTY(QString TextDirection READ textDirection CONSTANT)
    Q_PROPERTY(QString Status READ status CONSTANT)
    Q_PROPERTY(QStringList IconThemePath READ iconThemePath CONSTANT)
public:
    struct Actions {
        std::function<void(const std::string& identifier)> activate;
        std::function<void()> showWindow;
        std::function<void()> showSettings;
        std::function<void()> quit;
    };
    // `place` becomes the object on the bus.
    TrayMenu(QObject* place, ToolList& tools, Actions actions);

    // Looks at everything again, as after a change of colours.
    void update();

    uint version() const { return 3; }
    QString textDirection() const;
    QString status() const { return QStringLiteral("normal"); }
    QStringList iconThemePath() const { return {}; }

public Q_SLOTS:
    uint GetLayout(int parentId, int recursionDepth, const QStringList& propertyNames,
                   utilia::agent::MenuLayout& layout) const;
    utilia::agent::MenuItems GetGroupProperties(const QList<int>& ids,
                                                const QStringList& propertyNames) const;
    QDBusVariant GetProperty(int id, const QString& name) const;
    void Event(int id, const QString& eventId, const QDBusVariant& data, uint timestamp);
    QList<int> EventGroup(const utilia::agent::MenuEvents& events);
    bool AboutToShow(int id);
    QList<int> AboutToShowGroup(const QList<int>& ids, QList<int>& idErrors);

Q_SIGNALS:
    void ItemsPropertiesUpdated(const utilia::agent::MenuItems& updatedProps,
                                const utilia::agent::MenuItemsKeys& removedProps);
    void LayoutUpdated(uint revision, int parent);
    void ItemActivationRequested(int id, uint timestamp);

private:
    // The picture of a tool as panels take it, and what it was made of: most changes are of texts, and a picture costs
    // more than all the rest of an item.
    struct Picture {
        std::shared_ptr<platform::Image> toolIcon;
        std::shared_ptr<platform::Image> menuIcon;
        std::string name;
        std::string path;
        std::int64_t bundleDate = 0;
        QRgb ink = 0;
        QByteArray png = {};

        bool isOf(const Picture& other) const;
    };

    MenuLayout build();
    MenuItem itemOf(const ToolEntry& tool);
    QByteArray pictureFor(const ToolEntry& tool);
    const MenuLayout* find(int id) const;
    void click(int id);

    ToolList& tools_;
    const Actions actions_;
    std::map<std::string, int> ids_;  // of tools; never given to another one
    std::map<std::string, Picture> pictures_;
    MenuLayout root_;
    uint revision_ = 1;
    Handle observation_;
};

}  // namespace utilia::agent
