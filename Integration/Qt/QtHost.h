#pragma once

#include <chrono>
#include <cstdlib>
#include <string>

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QGuiApplication>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QWindow>

#include "Common/Logging/Log.h"
#include "Common/Platform/Application.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/RunLoop.h"

namespace utilia::integration {

// Makes a Qt 6 application one of the framework's: its life cycle, its windows and its end.
//
//     int main(int argc, char** argv) {
//         QApplication application(argc, argv);
//         utilia::integration::QtHost host;  // a second start hands its arguments over and ends here
//         … windows, the tool's client …
//         return host.exec();
//     }
//
// What the application gets:
//   - its start-up ends with the constructor: it is the one instance, it is listed as running, and signals end it in an
//     orderly way;
//   - the framework's ports, timers and observers are served by Qt's loop;
//   - NSApplicationWillTerminateNotification is posted exactly once, whoever ends the application: Qt (its last window,
//     quit(), the session) or the framework (a signal, the agent's turn-off). The framework's end cannot be refused by a
//     window that ignores its close event, unlike quit();
//   - a reopen (a second start, a click in the agent) reaches the delegate with hasVisibleWindows, and then brings the
//     application's windows to the front, a modal one last, minimized ones restored.
//
// A window counts as visible when it is on the screen and neither minimized nor a menu, tool tip or splash screen.
//
// Where Qt does not run GLib's loop (QT_NO_GLIB, or a Qt built without it) the framework is served 20 times a second
// instead, and one log line says so.
//
// Needs QtGui only, and no moc. The delegate, if there is one, is set with Application::setDelegate().
//
// Threads: the main thread. Lives no longer than the QGuiApplication, and there is one of it.
class QtHost final {
public:
    QtHost() {
        introduceApplication();
        if (!runsFrameworksLoop()) serveByTurns();
        auto& application = platform::Application::sharedApplication();
        application.setWindowsVisibleHandler([] { return hasVisibleWindows(); });
        application.setActivateHandler([] { activate(); });
        // Not quit(), which a window may refuse: will-terminate has been posted by now.
        application.setQuitHandler([] { QCoreApplication::exit(EXIT_SUCCESS); });
        QObject::connect(qApp, &QCoreApplication::aboutToQuit, &context_, [] { endWithToolkit(); });
        application.finishLaunching();
    }
    ~QtHost() {
        auto& application = platform::Application::sharedApplication();
        application.setWindowsVisibleHandler(nullptr);
        application.setActivateHandler(nullptr);
        application.setQuitHandler(nullptr);
    }
    QtHost(const QtHost&) = delete;
    QtHost& operator=(const QtHost&) = delete;

    // Qt's exec(), unless the application was ended before it began. Answers the exit status: 0, or the one that was
    // given to QCoreApplication::exit().
    int exec() {
        if (platform::Application::sharedApplication().isTerminating()) return EXIT_SUCCESS;
        return QCoreApplication::exec();
    }

    static bool hasVisibleWindows() {
        for (const QWindow* const window : QGuiApplication::topLevelWindows()) {
            if (isOnScreen(*window) && !(window->windowStates() & Qt::WindowMinimized)) return true;
        }
        return false;
    }

    // Brings the application's windows to the front, and gives the keyboard to the one that had it last.
    static void activate() {
        QWindow* last = nullptr;
        for (QWindow* const window : QGuiApplication::topLevelWindows()) {
            if (!isOnScreen(*window)) continue;
            if (window->windowStates() & Qt::WindowMinimized)
                window->setWindowStates(window->windowStates() & ~Qt::WindowMinimized);
            window->raise();
            last = window;
        }
        if (QWindow* const focused = QGuiApplication::focusWindow();
            focused && isOnScreen(*focused))
            last = focused;
        if (QWindow* const modal = QGuiApplication::modalWindow(); modal && isOnScreen(*modal))
            last = modal;
        if (!last) return;
        last->raise();
        last->requestActivate();
    }

private:
    static constexpr std::chrono::milliseconds kTurn{50};

    static bool isOnScreen(const QWindow& window) {
        const Qt::WindowType type = window.type();
        return window.isVisible() &&
               (type == Qt::Window || type == Qt::Dialog || type == Qt::Sheet || type == Qt::Tool);
    }

    // Qt's loop is GLib's main context, which is the framework's loop.
    static bool runsFrameworksLoop() {
        const QAbstractEventDispatcher* const dispatcher = QAbstractEventDispatcher::instance();
        return dispatcher && dispatcher->inherits("QEventDispatcherGlib");
    }

    void serveByTurns() {
        KULogVariadic("Application: Qt does not run GLib's loop, so that messages wait up to %@ ms",
                      std::to_string(kTurn.count()));
        QObject::connect(&turns_, &QTimer::timeout, &context_, [] {
            platform::RunLoop::mainRunLoop().runFor(std::chrono::nanoseconds(0));
        });
        turns_.start(kTurn);
    }

    // How the desktop finds the application's entry (its windows' icon): by the bundle's identifier.
    static void introduceApplication() {
        const platform::Bundle* const bundle = platform::Bundle::mainBundle();
        if (!bundle) return;
        if (const auto identifier = bundle->bundleIdentifier())
            QGuiApplication::setDesktopFileName(QString::fromStdString(*identifier));
    }

    // Qt has left its loop already, with an exit status that must stay.
    static void endWithToolkit() {
        auto& application = platform::Application::sharedApplication();
        application.setQuitHandler([] {});
        application.terminate();
    }

    QObject context_;
    QTimer turns_;
};

}  // namespace utilia::integration
