#pragma once

#include <functional>
#include <memory>

#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusObjectPath>
#include <QDBusServiceWatcher>

#include "Applications/Agent/Tray/TrayTypes.h"

namespace utilia::agent {

// The agent's status icon in the panel, a StatusNotifierItem of its own: the toolkit's looks for a panel only when the
// program starts, so that it never comes when the panel is late.
//
// The icon registers whenever a registrar of status icons appears on the bus: at the start, late, and again after a
// restart. The picture is a mask that panels paint in their own colour, by the name of an icon in the agent's bundle;
// panels that know no such icons get pixels in `ink`.
//
// Threads: the main thread.
class TrayIcon final : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierItem")
    Q_PROPERTY(QString Category READ category CONSTANT)
    Q_PROPERTY(QString Id READ id CONSTANT)
    Q_PROPERTY(QString Title READ title CONSTANT)
    Q_PROPERTY(QString Status READ status CONSTANT)
    Q_PROPERTY(int WindowId READ windowId CONSTANT)
    Q_PROPERTY(QString IconThemePath READ iconThemePath CONSTANT)
    Q_PROPERTY(QString IconName READ iconName CONSTANT)
    Q_PROPERTY(utilia::agent::TrayPixmaps IconPixmap READ iconPixmap)
    Q_PROPERTY(QString OverlayIconName READ none CONSTANT)
    Q_PROPERTY(utilia::agent::TrayPixmaps OverlayIconPixmap READ noPixmap CONSTANT)
    Q_PROPERTY(QString AttentionIconName READ none CONSTANT)
    Q_PROPERTY(utilia::agent::TrayPixmaps AttentionIconPixmap READ noPixmap CONSTANT)
    Q_PROPERTY(QString AttentionMovieName READ none CONSTANT)
    Q_PROPERTY(utilia::agent::TrayToolTip ToolTip READ toolTip CONSTANT)
    Q_PROPERTY(bool ItemIsMenu READ itemIsMenu CONSTANT)
    Q_PROPERTY(QDBusObjectPath Menu READ menu CONSTANT)
public:
    // `place` becomes the object on the bus; `activate` is a click on the icon that is not for the menu.
    TrayIcon(QObject* place, std::function<void()> activate);

    // Puts item and menu on this bus, without waiting. `menuPlace` carries the menu.
    void show(QDBusConnection bus, QObject* menuPlace);
    // The bus of before is gone: no panel shows the icon, and none is known until the next show().
    void forgetBus();
    // The colours around have changed.
    void update();

    // Whether a panel shows the icon, as far as the registrar says.
    bool isShown() const { return isShown_; }
    // Called whenever that changes, and once when it is known for the first time.
    void setShownHandler(std::function<void()> changed) { shownChanged_ = std::move(changed); }
    bool isKnown() const { return isKnown_; }

    QString category() const { return QStringLiteral("ApplicationStatus"); }
    QString id() const { return QStringLiteral("com.korvane.utilia"); }
    QString title() const;
    QString status() const { return QStringLiteral("Active"); }
    int windowId() const { return 0; }
    QString iconThemePath() const;
    QString iconName() const;
    TrayPixmaps iconPixmap() const;
    QString none() const { return {}; }
    TrayPixmaps noPixmap() const { return {}; }
    TrayToolTip toolTip() const;
    bool itemIsMenu() const { return false; }
    QDBusObjectPath menu() const;

public Q_SLOTS:
    void Activate(int x, int y);
    void SecondaryActivate(int x, int y);
    void ContextMenu(int x, int y);
    void Scroll(int delta, const QString& orientation);

Q_SIGNALS:
    void NewTitle();
    void NewIcon();
    void NewAttentionIcon();
    void NewOverlayIcon();
    void NewToolTip();
    void NewStatus(const QString& status);

private Q_SLOTS:
    void askWhetherShown();

private:
    void registerWithPanel();
    void setShown(bool isShown);

    const std::function<void()> activate_;
    std::function<void()> shownChanged_;
    std::unique_ptr<QDBusServiceWatcher> watcher_;
    QDBusConnection bus_;
    QString serviceName_;
    bool isShown_ = false;
    bool isKnown_ = false;
};

}  // namespace utilia::agent
