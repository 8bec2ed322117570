#include "Applications/Desktop/DesktopColors.h"

#include <atomic>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QSemaphore>

// A bus that does not answer must not keep the question from the user, and the bus library waits for it in many places:
// so a thread of its own talks to the portal, and the window waits for that thread for a fifth of a second. The thread
// is never joined; the process ends with the answer to the question.

namespace utilia::desktop {
namespace {

constexpr int kPatience = 200;        // milliseconds, before the window is shown anyway
constexpr int kCallTimeout = 10'000;  // milliseconds; starting a portal may take a while

constexpr uint kNoPreference = 0;
constexpr uint kPrefersDark = 1;

QString service() { return QStringLiteral("org.freedesktop.portal.Desktop"); }
QString path() { return QStringLiteral("/org/freedesktop/portal/desktop"); }
QString interface() { return QStringLiteral("org.freedesktop.portal.Settings"); }
QString group() { return QStringLiteral("org.freedesktop.appearance"); }
QString connectionName(int number) {
    return QStringLiteral("utilia-desktop-colors-%1").arg(number);
}
QString key() { return QStringLiteral("color-scheme"); }

// Anything that is no number is no preference.
uint schemeOf(QVariant value) {
    // "Read" wraps its answer twice.
    while (value.canConvert<QDBusVariant>()) value = value.value<QDBusVariant>().variant();
    bool isNumber = false;
    const uint scheme = value.toUInt(&isNumber);
    return isNumber ? scheme : kNoPreference;
}

uint askPortal(const QDBusConnection& bus) {
    // The first is the newer form.
    for (const QString& method : {QStringLiteral("ReadOne"), QStringLiteral("Read")}) {
        QDBusMessage call = QDBusMessage::createMethodCall(service(), path(), interface(), method);
        call << group() << key();
        const QDBusMessage reply = bus.call(call, QDBus::Block, kCallTimeout);
        if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()) {
            return schemeOf(reply.arguments().constFirst());
        }
    }
    return kNoPreference;
}

bool isDark(const QPalette& palette) {
    return palette.color(QPalette::Window).lightness() <
           palette.color(QPalette::WindowText).lightness();
}

QPalette darkPalette() {
    const QColor window(0x2a, 0x2b, 0x2e);
    const QColor text(0xf0, 0xf0, 0xf0);
    const QColor faint(0x8c, 0x8e, 0x92);
    const QColor accent(0x3d, 0x84, 0xe6);
    QPalette palette(QColor(0x3c, 0x3e, 0x43), window);
    palette.setColor(QPalette::Base, QColor(0x20, 0x21, 0x23));
    palette.setColor(QPalette::AlternateBase, window);
    for (const auto role :
         {QPalette::WindowText, QPalette::Text, QPalette::ButtonText, QPalette::ToolTipText}) {
        palette.setColor(role, text);
        palette.setColor(QPalette::Disabled, role, faint);
    }
    palette.setColor(QPalette::ToolTipBase, QColor(0x3c, 0x3e, 0x43));
    palette.setColor(QPalette::PlaceholderText, faint);
    palette.setColor(QPalette::Highlight, accent);
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::Link, QColor(0x7a, 0xb4, 0xff));
    return palette;
}

}  // namespace

DesktopColors::DesktopColors() : original_(QApplication::palette()) {}

void DesktopColors::follow() {
    struct First {
        QSemaphore isThere;
        std::atomic<uint> scheme{kNoPreference};
    };
    const auto first = std::make_shared<First>();
    // The bus library finds the types of a slot by their names, and learns its own with the first
    // message only.
    qRegisterMetaType<QDBusVariant>();
    const bool isAsked = ask([first](uint scheme) {
        first->scheme = scheme;
        first->isThere.release();
    });
    if (isAsked && first->isThere.tryAcquire(1, kPatience)) apply(first->scheme);
}

void DesktopColors::followAgain() {
    ask([](uint) {});
}

// False where there is no thread to ask on; the colours then stay as they are.
bool DesktopColors::ask(std::function<void(uint)> answered) {
    const QString before = connectionName(connections_);
    const QString name = connectionName(++connections_);
    const auto talk = [this, address = qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS"), before,
                       name, answered = std::move(answered)] {
        QDBusConnection::disconnectFromBus(before);
        uint scheme = kNoPreference;
        QDBusConnection bus = QDBusConnection::connectToBus(address, name);
        if (bus.isConnected()) {
            // Before the question, so that no change comes in between.
            bus.connect(service(), path(), interface(), QStringLiteral("SettingChanged"), this,
                        SLOT(settingChanged(QString, QString, QDBusVariant)));
            scheme = askPortal(bus);
        }
        answered(scheme);
        QMetaObject::invokeMethod(
            this, [this, scheme] { apply(scheme); }, Qt::QueuedConnection);
    };
    try {
        std::thread(talk).detach();
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

void DesktopColors::settingChanged(const QString& changedGroup, const QString& changedKey,
                                   const QDBusVariant& value) {
    if (changedGroup == group() && changedKey == key()) apply(schemeOf(value.variant()));
}

void DesktopColors::apply(uint scheme) {
    // A desktop theme that is dark already knows its colours better.
    const bool wantsDark = scheme == kPrefersDark && !isDark(original_);
    QApplication::setPalette(wantsDark ? darkPalette() : original_);
    if (!wantsDark) return;
    // The style draws the box of a check box in the colour of lists, which is hardly seen on a dark window: this one is
    // three times as bright as it.
    QPalette checkBox = darkPalette();
    checkBox.setColor(QPalette::Base, QColor(0x72, 0x76, 0x7e));
    QApplication::setPalette(checkBox, "QCheckBox");
}

}  // namespace utilia::desktop
