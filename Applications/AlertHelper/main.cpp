// utilia-alert: asks one question of a tool in a window. Started by the framework only; the question comes as one packet
// on standard input, a socket, on which the answer goes back. The window closes when the tool is gone.

#include <cstdio>
#include <cstdlib>

#include <QApplication>
#include <QByteArray>
#include <QFile>
#include <QLocale>
#include <QSocketNotifier>
#include <QString>

#include <unistd.h>

#include "Applications/AlertHelper/Channel.h"
#include "Applications/AlertHelper/Question.h"
#include "Applications/AlertHelper/QuestionWindow.h"
#include "Applications/Desktop/BusThread.h"
#include "Applications/Desktop/DesktopColors.h"
#include "Applications/Desktop/ToolkitBus.h"

namespace {

using utilia::alert::Channel;
using utilia::alert::Question;

constexpr int kNoQuestion = 2;

Channel* startingChannel = nullptr;  // until the display is open
QString* lastWarning = nullptr;

// The toolkit ends the process when it can open no display, and has said why in a warning before.
void handleMessage(QtMsgType type, const QMessageLogContext&, const QString& text) {
    if (type == QtFatalMsg && startingChannel) {
        startingChannel->answerNoDisplay(
            lastWarning->isEmpty() ? text.section(QLatin1Char('\n'), 0, 0) : *lastWarning);
    }
    if (startingChannel && type == QtWarningMsg) *lastWarning = text;
    if (type == QtFatalMsg || type == QtCriticalMsg)
        std::fprintf(stderr, "utilia-alert: %s\n", qPrintable(text));
}

// Nobody's alert may start a session bus, which the bus library does where none is named.
void nameSessionBus() {
    constexpr const char* kName = "DBUS_SESSION_BUS_ADDRESS";
    if (!qEnvironmentVariableIsEmpty(kName)) return;
    const QString usual = qEnvironmentVariable("XDG_RUNTIME_DIR") + QLatin1String("/bus");
    qputenv(kName, QFile::exists(usual) ? "unix:path=" + QFile::encodeName(usual) : "disabled:");
}

}  // namespace

int main(int argc, char** argv) {
    Channel channel;
    const auto question = Question::parse(channel.receiveQuestion());
    if (!question) {
        std::fputs(
            "utilia-alert: asks what the framework tells it to, and is not started by hand\n",
            stderr);
        return kNoQuestion;
    }

    nameSessionBus();
    QString warning;
    lastWarning = &warning;
    startingChannel = &channel;
    qInstallMessageHandler(handleMessage);
    utilia::desktop::ToolkitBus bus;
    QApplication application(argc, argv);
    bus.settle();
    startingChannel = nullptr;

    QApplication::setLayoutDirection(QLocale(question->language).textDirection());
    utilia::desktop::DesktopColors colors;
    colors.follow();
    utilia::alert::QuestionWindow window(
        *question, [&channel](qsizetype button) { channel.answerButton(button); });
    // After its question a tool says nothing more: whatever comes is its end.
    QSocketNotifier end(Channel::kDescriptor, QSocketNotifier::Read);
    QObject::connect(&end, &QSocketNotifier::activated, &window, [] { _exit(EXIT_FAILURE); });
    window.present();
    return utilia::desktop::endedMain(QApplication::exec());
}
