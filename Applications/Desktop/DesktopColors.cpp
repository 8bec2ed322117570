#include "Applications/Desktop/DesktopColors.h"

#include <chrono>
#include <future>
#include <memory>
#include <utility>

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QStyle>

#include "Applications/Desktop/BusProbe.h"
#include "Applications/Desktop/BusThread.h"
#include "Applications/Desktop/DesktopPalette.h"
#include "Applications/Desktop/HighContrastStyle.h"

// A bus that does not answer must not keep the question from the user, and the bus library waits for it in many places:
// so a thread of its own talks to the portal, and the window waits for that thread for a fifth of a second. The thread
// is never joined: where it still talks at the end of main, the process ends with it (BusThread.h). It leaves the bus
// library alone until the bus has answered a greeting, as that library lets everybody wait who connects meanwhile.

namespace utilia::desktop {
namespace {

constexpr std::chrono::milliseconds kPatience(200);  // before the window is shown anyway
// For a bus that is slow; nobody waits for it.
constexpr std::chrono::minutes kBusPatience(10);
constexpr int kCallTimeout = 10'000;  // milliseconds; starting a portal may take a while

constexpr uint kNoPreference = 0;
constexpr uint kPrefersDark = 1;
constexpr uint kPrefersHighContrast = 1;

QString service() { return QStringLiteral("org.freedesktop.portal.Desktop"); }
QString path() { return QStringLiteral("/org/freedesktop/portal/desktop"); }
QString interface() { return QStringLiteral("org.freedesktop.portal.Settings"); }
QString group() { return QStringLiteral("org.freedesktop.appearance"); }
QString connectionName(int number) {
    return QStringLiteral("utilia-desktop-colors-%1").arg(number);
}
QString schemeKey() { return QStringLiteral("color-scheme"); }
QString contrastKey() { return QStringLiteral("contrast"); }

// Anything that is no number is no preference.
uint preferenceOf(QVariant value) {
    // "Read" wraps its answer twice.
    while (value.canConvert<QDBusVariant>()) value = value.value<QDBusVariant>().variant();
    bool isNumber = false;
    const uint preference = value.toUInt(&isNumber);
    return isNumber ? preference : kNoPreference;
}

std::optional<uint> askPortal(const QDBusConnection& bus, const QString& key) {
    // The first is the newer form.
    for (const QString& method : {QStringLiteral("ReadOne"), QStringLiteral("Read")}) {
        QDBusMessage call = QDBusMessage::createMethodCall(service(), path(), interface(), method);
        call << group() << key;
        const QDBusMessage reply = bus.call(call, QDBus::Block, kCallTimeout);
        if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()) {
            return preferenceOf(reply.arguments().constFirst());
        }
    }
    return std::nullopt;
}

}  // namespace

DesktopColors::DesktopColors()
    : original_(legible(QApplication::palette())),
      originalStyle_(QApplication::style()->objectName()) {
    QApplication::setPalette(original_);
}

void DesktopColors::follow() {
    const auto first = std::make_shared<std::promise<Answers>>();
    std::future<Answers> answers = first->get_future();
    // The bus library finds the types of a slot by their names, and learns its own with the first
    // message only.
    qRegisterMetaType<QDBusVariant>();
    const bool isAsked = ask([first](Answers answered) { first->set_value(answered); });
    if (isAsked && answers.wait_for(kPatience) == std::future_status::ready)
        take(connections_, answers.get());
}

void DesktopColors::followAgain() {
    ask([](Answers) {});
}

// False where there is no thread to ask on; the colours then stay as they are.
bool DesktopColors::ask(std::function<void(Answers)> answered) {
    const QString before = connectionName(connections_);
    const int number = ++connections_;
    const QString name = connectionName(number);
    told_ = {};
    return startBusThread([this, address = qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS"), before,
                           name, number, answered = std::move(answered)] {
        QDBusConnection::disconnectFromBus(before);
        Answers answers;
        QDBusConnection bus{QString()};
        if (!isBusSilent(address.toStdString(), kBusPatience))
            bus = QDBusConnection::connectToBus(address, name);
        if (bus.isConnected()) {
            // Before the questions, so that no change comes in between.
            bus.connect(service(), path(), interface(), QStringLiteral("SettingChanged"), this,
                        SLOT(settingChanged(QString, QString, QDBusVariant)));
            answers = {askPortal(bus, schemeKey()), askPortal(bus, contrastKey())};
        }
        answered(answers);
        QMetaObject::invokeMethod(
            this, [this, number, answers] { take(number, answers); }, Qt::QueuedConnection);
    });
}

void DesktopColors::take(int number, Answers answers) {
    if (number != connections_ || std::exchange(taken_, number) == number) return;
    if (told_.scheme) answers.scheme = told_.scheme;
    if (told_.contrast) answers.contrast = told_.contrast;
    apply({answers.scheme.value_or(preferences_.scheme),
           answers.contrast.value_or(preferences_.contrast)});
}

void DesktopColors::settingChanged(const QString& changedGroup, const QString& changedKey,
                                   const QDBusVariant& value) {
    if (changedGroup != group()) return;
    if (changedKey == schemeKey()) told_.scheme = preferenceOf(value.variant());
    if (changedKey == contrastKey()) told_.contrast = preferenceOf(value.variant());
    apply({told_.scheme.value_or(preferences_.scheme),
           told_.contrast.value_or(preferences_.contrast)});
}

void DesktopColors::apply(Preferences preferences) {
    const bool hadHighContrast = preferences_.contrast == kPrefersHighContrast;
    const bool wantsHighContrast = preferences.contrast == kPrefersHighContrast;
    const bool wantsDark = preferences.scheme == kPrefersDark;
    preferences_ = preferences;
    if (wantsHighContrast && !hadHighContrast) QApplication::setStyle(new HighContrastStyle);
    if (!wantsHighContrast && hadHighContrast) QApplication::setStyle(originalStyle_);
    if (wantsHighContrast) {
        QApplication::setPalette(highContrastPalette(wantsDark || isDark(original_)));
    } else if (wantsDark && !isDark(original_)) {
        QApplication::setPalette(darkPalette());
        // The style draws the box of a check box in the colour of lists, which is hardly seen on a dark window: this
        // one is three times as bright as it.
        QPalette checkBox = darkPalette();
        checkBox.setColor(QPalette::Base, QColor(0x72, 0x76, 0x7e));
        QApplication::setPalette(checkBox, "QCheckBox");
    } else {
        // A desktop theme that is dark already knows its colours better.
        QApplication::setPalette(original_);
    }
}

}  // namespace utilia::desktop
