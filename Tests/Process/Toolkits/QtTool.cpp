// A Qt tool as it would be written, as a child role: it tells its parent what happens to it, and does what it is told.

#include <QApplication>
#include <QByteArray>
#include <QCloseEvent>
#include <QDialog>
#include <QSocketNotifier>
#include <QTimer>
#include <QWidget>

#include <unistd.h>

#include "Common/Platform/Application.h"
#include "Common/Platform/NotificationCenter.h"
#include "Common/Platform/RunLoop.h"
#include "Integration/Qt/QtHost.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"

namespace utilia::integration {
namespace {

using platform::Application;
using platform::NotificationCenter;
using test::ChildRole;

class StubbornWindow final : public QWidget {
public:
    void closeEvent(QCloseEvent* event) override { event->ignore(); }
};

class Delegate final : public platform::ApplicationDelegate {
public:
    explicit Delegate(ChildRole& role) : role_(role) {}
    bool applicationShouldHandleReopen(bool hasVisibleWindows,
                                       const std::vector<std::string>& arguments) override {
        role_.say(std::string("reopen ") + (hasVisibleWindows ? "visible" : "hidden") + " " +
                  (arguments.empty() ? "" : arguments.back()));
        return true;
    }

private:
    ChildRole& role_;
};

void perform(const std::string& command, QWidget& window, ChildRole& role) {
    if (command == "close") {
        window.close();
    } else if (command == "minimize") {
        window.showMinimized();
    } else if (command == "hide") {
        window.hide();
    } else if (command == "exit 3") {
        QCoreApplication::exit(3);
    } else if (command == "terminate") {
        Application::sharedApplication().terminate();
    } else if (command == "dialog") {
        QDialog dialog(&window);
        dialog.setWindowTitle(QStringLiteral("A question"));
        QTimer::singleShot(0, &dialog, [&] { role.say("asks"); });
        dialog.exec();
    }
}

int runTool(ChildRole& self, QWidget& window, bool endsBeforeItsLoop) {
    auto& center = NotificationCenter::defaultCenter();
    const Handle up = center.addObserver(platform::NSApplicationDidFinishLaunchingNotification,
                                         nullptr, [&](const void*) { self.say("launched"); });
    const Handle end = center.addObserver(platform::NSApplicationWillTerminateNotification, nullptr,
                                          [&](const void*) { self.say("will-terminate"); });
    Delegate delegate(self);
    Application::sharedApplication().setDelegate(&delegate);
    QtHost host;
    window.setWindowTitle(QStringLiteral("Qt tool"));
    window.resize(300, 200);
    window.show();

    QByteArray pending;
    QSocketNotifier commands(test::kChildChannel, QSocketNotifier::Read);
    QObject::connect(&commands, &QSocketNotifier::activated, &window, [&] {
        char bytes[256];
        const ssize_t size = read(test::kChildChannel, bytes, sizeof bytes);
        if (size <= 0) return commands.setEnabled(false);
        pending.append(bytes, size);
        for (qsizetype length = 0; (length = pending.indexOf('\n')) >= 0;) {
            const std::string command = pending.left(length).toStdString();
            pending.remove(0, length + 1);
            perform(command, window, self);
        }
    });
    // Through the framework's loop, to show that Qt serves it.
    platform::MainQueue::async([&] { self.say("serves the framework"); });
    if (endsBeforeItsLoop) Application::sharedApplication().terminate();
    const int status = host.exec();
    self.say("left its loop");
    Application::sharedApplication().setDelegate(nullptr);
    return status;
}

int start(ChildRole& self, bool isStubborn, bool endsBeforeItsLoop = false) {
    char name[] = "tool";
    char* arguments[] = {name, nullptr};
    int count = 1;
    QApplication application(count, arguments);
    StubbornWindow stubborn;
    QWidget window;
    return runTool(self, isStubborn ? stubborn : window, endsBeforeItsLoop);
}

UTILIA_CHILD_ROLE(qtTool) { return start(self, false); }
UTILIA_CHILD_ROLE(stubbornQtTool) { return start(self, true); }
UTILIA_CHILD_ROLE(qtToolThatEndsAtOnce) { return start(self, false, true); }

}  // namespace
}  // namespace utilia::integration
