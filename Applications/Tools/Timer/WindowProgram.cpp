// timer-window "counts" | "held" [SECONDS]: a window to set Timer, whose last countdown was so long. It is a program beside
// Timer's own, which lives long and need not load a toolkit for what is seldom seen. What the user wants is handed over as
// by hand: Timer is started again, with a word or with a time.

#include <QApplication>
#include <QDir>
#include <QLocale>
#include <QLockFile>
#include <QProcess>
#include <QStandardPaths>

#include "Applications/Desktop/BusThread.h"
#include "Applications/Desktop/DesktopColors.h"
#include "Applications/Desktop/ToolkitBus.h"
#include "Applications/Tools/Timer/TimerWindow.h"
#include "Common/Platform/Bundle.h"

int main(int count, char** words) {
    using namespace utilia;
    constexpr int kUsualMinutes = 25;
    desktop::ToolkitBus bus;
    QApplication application(count, words);
    bus.settle();
    const auto* const bundle = platform::Bundle::mainBundle();
    if (bundle)
        QApplication::setLayoutDirection(
            QLocale(QString::fromStdString(bundle->preferredLocalization())).textDirection());
    // One window is enough; it is above all others.
    QLockFile lock(QDir(QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation))
                       .filePath(QStringLiteral("korvane-utilia-timer-window.lock")));
    if (!lock.tryLock(0) && lock.error() == QLockFile::LockFailedError) return 0;

    desktop::DesktopColors colors;
    colors.follow();
    const QStringList arguments = QApplication::arguments();
    const int last = arguments.value(2).toInt() / 60;
    tools::TimerWindow window(arguments.value(1) == QLatin1String("held"),
                              last > 0 ? last : kUsualMinutes, [](const QString& what) {
                                  QProcess::startDetached(QApplication::applicationDirPath() +
                                                              QLatin1String("/timer"),
                                                          {what});
                              });
    window.show();
    window.activateWindow();
    return desktop::endedMain(QApplication::exec());
}
