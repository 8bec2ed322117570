#include "Applications/Agent/Tray/TrayTypes.h"

#include <QDBusMetaType>
#include <QtEndian>

namespace utilia::agent {

TrayPixmap trayPixmap(const QImage& image) {
    const QImage plain = image.convertToFormat(QImage::Format_ARGB32);
    TrayPixmap pixmap{plain.width(), plain.height(), {}};
    pixmap.pixels.resize(static_cast<qsizetype>(plain.width()) * plain.height() * 4);
    char* target = pixmap.pixels.data();
    for (int y = 0; y < plain.height(); ++y) {
        const auto* const line = reinterpret_cast<const QRgb*>(plain.constScanLine(y));
        for (int x = 0; x < plain.width(); ++x, target += 4) qToBigEndian(line[x], target);
    }
    return pixmap;
}

void registerTrayTypes() {
    qDBusRegisterMetaType<TrayPixmap>();
    qDBusRegisterMetaType<TrayPixmaps>();
    qDBusRegisterMetaType<TrayToolTip>();
    qDBusRegisterMetaType<MenuItem>();
    qDBusRegisterMetaType<MenuItems>();
    qDBusRegisterMetaType<MenuLayout>();
    qDBusRegisterMetaType<MenuItemKeys>();
    qDBusRegisterMetaType<MenuItemsKeys>();
    qDBusRegisterMetaType<MenuEvent>();
    qDBusRegisterMetaType<MenuEvents>();
}

QDBusArgument& operator<<(QDBusArgument& out, const TrayPixmap& value) {
    out.beginStructure();
    out << value.width << value.height << value.pixels;
    out.endStructure();
    return out;
}

const QDBusArgument& operator>>(const QDBusArgument& in, TrayPixmap& value) {
    in.beginStructure();
    in >> value.width >> value.height >> value.pixels;
    in.endStructure();
    return in;
}

QDBusArgument& operator<<(QDBusArgument& out, const TrayToolTip& value) {
    out.beginStructure();
    out << value.iconName << value.icon << value.title << value.text;
    out.endStructure();
    return out;
}

const QDBusArgument& operator>>(const QDBusArgument& in, TrayToolTip& value) {
    in.beginStructure();
    in >> value.iconName >> value.icon >> value.title >> value.text;
    in.endStructure();
    return in;
}

QDBusArgument& operator<<(QDBusArgument& out, const MenuItem& value) {
    out.beginStructure();
    out << value.id << value.properties;
    out.endStructure();
    return out;
}

const QDBusArgument& operator>>(const QDBusArgument& in, MenuItem& value) {
    in.beginStructure();
    in >> value.id >> value.properties;
    in.endStructure();
    return in;
}

QDBusArgument& operator<<(QDBusArgument& out, const MenuLayout& value) {
    out.beginStructure();
    out << value.id << value.properties;
    out.beginArray(QMetaType::fromType<QDBusVariant>());
    for (const MenuLayout& child : value.children) out << QDBusVariant(QVariant::fromValue(child));
    out.endArray();
    out.endStructure();
    return out;
}

const QDBusArgument& operator>>(const QDBusArgument& in, MenuLayout& value) {
    in.beginStructure();
    in >> value.id >> value.properties;
    in.beginArray();
    while (!in.atEnd()) {
        QDBusVariant child;
        in >> child;
        value.children.append(qdbus_cast<MenuLayout>(child.variant()));
    }
    in.endArray();
    in.endStructure();
    return in;
}

QDBusArgument& operator<<(QDBusArgument& out, const MenuItemKeys& value) {
    out.beginStructure();
    out << value.id << value.keys;
    out.endStructure();
    return out;
}

const QDBusArgument& operator>>(const QDBusArgument& in, MenuItemKeys& value) {
    in.beginStructure();
    in >> value.id >> value.keys;
    in.endStructure();
    return in;
}

QDBusArgument& operator<<(QDBusArgument& out, const MenuEvent& value) {
    out.beginStructure();
    out << value.id << value.name << value.data << value.time;
    out.endStructure();
    return out;
}

const QDBusArgument& operator>>(const QDBusArgument& in, MenuEvent& value) {
    in.beginStructure();
    in >> value.id >> value.name >> value.data >> value.time;
    in.endStructure();
    return in;
}

}  // namespace utilia::agent
