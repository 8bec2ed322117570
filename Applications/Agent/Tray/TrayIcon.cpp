#include "Applications/Agent/Tray/TrayIcon.h"

#include <utility>

#include <QCoreApplication>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QGuiApplication>
#include <QPalette>

#include "Applications/Agent/AgentTexts.h"
#include "Applications/Agent/Interface/ToolPictures.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/Bundle.h"

namespace utilia::agent {
namespace {

QString watcherService() { return QStringLiteral("org.kde.StatusNotifierWatcher"); }
QString watcherPath() { return QStringLiteral("/StatusNotifierWatcher"); }
QString itemPath() { return QStringLiteral("/StatusNotifierItem"); }
QString menuPath() { return QStringLiteral("/MenuBar"); }

// Whether an error is the end of the bus, which comes before the word of it, and says nothing of the panel.
bool isOver(const QDBusConnection& bus) { return !bus.isConnected(); }

}  // namespace

TrayIcon::TrayIcon(QObject* place, std::function<void()> activate)
    : QDBusAbstractAdaptor(place), activate_(std::move(activate)), bus_(QString()),
      serviceName_(QStringLiteral("org.kde.StatusNotifierItem-%1-1")
                       .arg(QCoreApplication::applicationPid())) {
    registerTrayTypes();
}

void TrayIcon::show(QDBusConnection bus, QObject* menuPlace) {
    bus_ = std::move(bus);
    if (!bus_.registerObject(menuPath(), menuPlace, QDBusConnection::ExportAdaptors) ||
        !bus_.registerObject(itemPath(), parent(), QDBusConnection::ExportAdaptors)) {
        KULogVariadic("Agent: no status icon: the bus refuses the object");
        return;
    }
    QDBusMessage request = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("RequestName"));
    request << serviceName_ << 0u;
    bus_.asyncCall(request);

    // Also when one panel follows another at once, which is neither the end nor the start of the service.
    watcher_ = std::make_unique<QDBusServiceWatcher>(watcherService(), bus_,
                                                     QDBusServiceWatcher::WatchForOwnerChange);
    connect(watcher_.get(), &QDBusServiceWatcher::serviceOwnerChanged, this,
            [this](const QString&, const QString&, const QString& owner) {
                owner.isEmpty() ? setShown(false) : registerWithPanel();
            });
    // From whoever says it: the registrar is asked then. To name it would make the bus library ask who that is, and wait.
    for (const QString& signal : {QStringLiteral("StatusNotifierHostRegistered"),
                                  QStringLiteral("StatusNotifierHostUnregistered")}) {
        bus_.connect(QString(), watcherPath(), watcherService(), signal, this,
                     SLOT(askWhetherShown()));
    }
    registerWithPanel();
}

void TrayIcon::forgetBus() {
    watcher_.reset();
    bus_ = QDBusConnection(QString());
    isKnown_ = false;
    isShown_ = false;
}

void TrayIcon::registerWithPanel() {
    QDBusMessage call =
        QDBusMessage::createMethodCall(watcherService(), watcherPath(), watcherService(),
                                       QStringLiteral("RegisterStatusNotifierItem"));
    call << serviceName_;
    auto* const pending = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this, [this, pending, bus = bus_] {
        pending->deleteLater();
        if (isOver(bus)) return;
        if (pending->isError()) {
            setShown(false);
        } else {
            askWhetherShown();
        }
    });
}

void TrayIcon::askWhetherShown() {
    QDBusMessage call = QDBusMessage::createMethodCall(
        watcherService(), watcherPath(), QStringLiteral("org.freedesktop.DBus.Properties"),
        QStringLiteral("Get"));
    call << watcherService() << QStringLiteral("IsStatusNotifierHostRegistered");
    auto* const pending = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this, [this, pending, bus = bus_] {
        const QDBusPendingReply<QDBusVariant> reply = *pending;
        pending->deleteLater();
        if (isOver(bus)) return;
        setShown(!reply.isError() && reply.value().variant().toBool());
    });
}

void TrayIcon::setShown(bool isShown) {
    if (std::exchange(isKnown_, true) && isShown == isShown_) return;
    isShown_ = isShown;
    if (shownChanged_) shownChanged_();
}

void TrayIcon::update() { Q_EMIT NewIcon(); }

QString TrayIcon::title() const {
    return QString::fromUtf8(kProductName.data(), static_cast<qsizetype>(kProductName.size()));
}

QString TrayIcon::iconThemePath() const {
    const platform::Bundle* const bundle = platform::Bundle::mainBundle();
    return bundle ? QString::fromStdString(bundle->resourcePath()) : QString();
}

// "-symbolic": panels paint it in the colour of their texts.
QString TrayIcon::iconName() const { return QStringLiteral("korvane-utilia-symbolic"); }

TrayPixmaps TrayIcon::iconPixmap() const {
    const QColor ink = QGuiApplication::palette().color(QPalette::WindowText);
    TrayPixmaps pixmaps;
    for (const int side : {16, 22, 24, 32, 48}) pixmaps.append(trayPixmap(agentMark(side, ink)));
    return pixmaps;
}

TrayToolTip TrayIcon::toolTip() const { return {iconName(), {}, title(), {}}; }

QDBusObjectPath TrayIcon::menu() const { return QDBusObjectPath(menuPath()); }

void TrayIcon::Activate(int, int) {
    QMetaObject::invokeMethod(
        this, [this] { activate_(); }, Qt::QueuedConnection);
}

void TrayIcon::SecondaryActivate(int x, int y) { Activate(x, y); }

// Panels show the menu that Menu names.
void TrayIcon::ContextMenu(int, int) {}

void TrayIcon::Scroll(int, const QString&) {}

}  // namespace utilia::agent
