// Korvane Utilia, the agent of the tools.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <QApplication>
#include <QLocale>

#include "Applications/Agent/AgentApplication.h"
#include "Applications/Agent/AgentTexts.h"
#include "Applications/Agent/Interface/ToolPictures.h"
#include "Applications/CommandLine.h"
#include "Applications/Desktop/BusThread.h"
#include "Applications/Desktop/DesktopColors.h"
#include "Applications/Desktop/ToolkitBus.h"
#include "Applications/Reporting/SentReports.h"
#include "Common/Platform/Application.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/UtiliaCommon.h"
#include "Integration/Qt/QtHost.h"

namespace {

constexpr const char* kHelp =
    R"(Usage: korvane-utilia [--show-ui]

Shows the tools of the suite in the panel, and starts them when they are due. When it runs
already, or with --show-ui, its window opens.

  --show-ui  open the window
  --help     this text
  --version  the version
)";

// A bus that is started again at its address has another identity, which the old one's would refuse.
QByteArray withoutIdentity(const QByteArray& addresses) {
    QByteArrayList kept;
    for (const QByteArray& address : addresses.split(';')) {
        const qsizetype colon = address.indexOf(':') + 1;
        QByteArrayList pairs = address.mid(colon).split(',');
        pairs.removeIf([](const QByteArray& pair) { return pair.startsWith("guid="); });
        kept.append(address.left(colon) + pairs.join(','));
    }
    return kept.join(';');
}

// Nobody's agent may start a session bus, which the bus library does where none is named.
void nameSessionBus() {
    constexpr const char* kName = "DBUS_SESSION_BUS_ADDRESS";
    if (!qEnvironmentVariableIsEmpty(kName)) {
        qputenv(kName, withoutIdentity(qgetenv(kName)));
        return;
    }
    const QByteArray folder = qgetenv("XDG_RUNTIME_DIR");
    // The usual place, also where there is nothing yet: a bus that comes late is waited for.
    qputenv(kName, folder.isEmpty() ? "disabled:" : "unix:path=" + folder + "/bus");
}

void handleMessage(QtMsgType type, const QMessageLogContext&, const QString& text) {
    if (type != QtDebugMsg && type != QtInfoMsg)
        std::fprintf(stderr, "korvane-utilia: %s\n", qPrintable(text));
}

// Until the display is open: the toolkit says in a warning why it cannot be, and would then leave a
// core behind.
void handleMessageWithoutDisplay(QtMsgType type, const QMessageLogContext& context,
                                 const QString& text) {
    static QString& reason = *new QString;
    if (type == QtWarningMsg && QByteArray(context.category).startsWith("qt.qpa.")) {
        if (reason.isEmpty()) reason = text;
    } else if (type == QtFatalMsg) {
        std::fprintf(stderr, "korvane-utilia: there is no display: %s\n",
                     qPrintable(reason.isEmpty() ? text.section(QLatin1Char('\n'), 0, 0) : reason));
        std::_Exit(EXIT_FAILURE);
    } else {
        handleMessage(type, context, text);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const auto line = utilia::CommandLine::read({.program = "korvane-utilia",
                                                 .help = kHelp,
                                                 .options = {utilia::kShowUIArgument},
                                                 .toolkitOptions = utilia::kQtOptions},
                                                argc, argv);
    if (line.exitStatus) return *line.exitStatus;
    nameSessionBus();
    // The toolkit may ask over a connection that has broken this moment, and libdbus would end the
    // agent for that, unless it is told to warn.
    if (qEnvironmentVariableIsEmpty("DBUS_FATAL_WARNINGS")) qputenv("DBUS_FATAL_WARNINGS", "0");
    qInstallMessageHandler(handleMessageWithoutDisplay);
    utilia::desktop::ToolkitBus bus;
    QApplication application(argc, argv);
    bus.settle();
    qInstallMessageHandler(handleMessage);
    QApplication::setQuitOnLastWindowClosed(false);
    QApplication::setWindowIcon(utilia::agent::agentIcon());
    QApplication::setLayoutDirection(
        QLocale(QString::fromStdString(utilia::agent::textLanguage())).textDirection());
    utilia::integration::QtHost host;
    utilia::desktop::DesktopColors colors;
    colors.follow();
    // The agent uploads for all: what was recorded goes with its weekly timer.
    auto& usage = utilia::CEPLog::sharedInstance();
    const utilia::reporting::SentReports sent;
    sent.settle();
    // Its own copy: an upload may outlast main.
    usage.setUploadHandler(
        [sent](const std::vector<std::string>& reports) { sent.willSend(reports); });
    usage.initGrab();
    usage.log("Launch");
    utilia::agent::AgentApplication agent;
    utilia::platform::Application::sharedApplication().setDelegate(&agent);
    agent.setBusBackHandler([&colors] { colors.followAgain(); });
    agent.start(line.options);
    const int status = host.exec();
    utilia::platform::Application::sharedApplication().setDelegate(nullptr);
    usage.log("Quit");
    // What is being collected would be lost.
    const bool isUploaded = usage.waitForUploads(std::chrono::seconds(5));
    usage.setUploadHandler(nullptr);
    // Nothing is taken down under an upload either.
    if (!isUploaded) utilia::desktop::endAtOnce(status);
    return utilia::desktop::endedMain(status);
}
