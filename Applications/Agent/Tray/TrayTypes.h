#pragma once

#include <QByteArray>
#include <QDBusArgument>
#include <QImage>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QVariantMap>

// What status icons and their menus look like on the bus (StatusNotifierItem, dbusmenu).

namespace utilia::agent {

struct TrayPixmap {  // (iiay): ARGB, in network byte order
    int width = 0;
    int height = 0;
    QByteArray pixels;
};
using TrayPixmaps = QList<TrayPixmap>;

struct TrayToolTip {  // (sa(iiay)ss)
    QString iconName;
    TrayPixmaps icon;
    QString title;
    QString text;
};

struct MenuItem {  // (ia{sv})
    int id = 0;
    QVariantMap properties;
};
using MenuItems = QList<MenuItem>;

struct MenuLayout {  // (ia{sv}av)
    int id = 0;
    QVariantMap properties;
    QList<MenuLayout> children;
};

struct MenuItemKeys {  // (ias)
    int id = 0;
    QStringList keys;
};
using MenuItemsKeys = QList<MenuItemKeys>;

struct MenuEvent {  // (isvu)
    int id = 0;
    QString name;
    QDBusVariant data;
    uint time = 0;
};
using MenuEvents = QList<MenuEvent>;

TrayPixmap trayPixmap(const QImage& image);

// Once, before anything of this goes over the bus.
void registerTrayTypes();

QDBusArgument& operator<<(QDBusArgument& out, const TrayPixmap& value);
const QDBusArgument& operator>>(const QDBusArgument& in, TrayPixmap& value);
QDBusArgument& operator<<(QDBusArgument& out, const TrayToolTip& value);
const QDBusArgument& operator>>(const QDBusArgument& in, TrayToolTip& value);
QDBusArgument& operator<<(QDBusArgument& out, const MenuItem& value);
const QDBusArgument& operator>>(const QDBusArgument& in, MenuItem& value);
QDBusArgument& operator<<(QDBusArgument& out, const MenuLayout& value);
const QDBusArgument& operator>>(const QDBusArgument& in, MenuLayout& value);
QDBusArgument& operator<<(QDBusArgument& out, const MenuItemKeys& value);
const QDBusArgument& operator>>(const QDBusArgument& in, MenuItemKeys& value);
QDBusArgument& operator<<(QDBusArgument& out, const MenuEvent& value);
const QDBusArgument& operator>>(const QDBusArgument& in, MenuEvent& value);

}  // namespace utilia::agent

Q_DECLARE_METATYPE(utilia::agent::TrayPixmap)
Q_DECLARE_METATYPE(utilia::agent::TrayPixmaps)
Q_DECLARE_METATYPE(utilia::agent::TrayToolTip)
Q_DECLARE_METATYPE(utilia::agent::MenuItem)
Q_DECLARE_METATYPE(utilia::agent::MenuItems)
Q_DECLARE_METATYPE(utilia::agent::MenuLayout)
Q_DECLARE_METATYPE(utilia::agent::MenuItemKeys)
Q_DECLARE_METATYPE(utilia::agent::MenuItemsKeys)
Q_DECLARE_METATYPE(utilia::agent::MenuEvent)
Q_DECLARE_METATYPE(utilia::agent::MenuEvents)
