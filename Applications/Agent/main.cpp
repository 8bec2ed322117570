// Korvane Utilia, the agent of the tools.

#include <cstdio>
#include <string>
#include <vector>

#include <QApplication>
#include <QLocale>

#include "Applications/Agent/AgentApplication.h"
#include "Applications/Agent/AgentTexts.h"
#include "Applications/Agent/Interface/ToolPictures.h"
#include "Applications/Desktop/DesktopColors.h"
#include "Common/Platform/Application.h"
#include "Integration/Qt/QtHost.h"

namespace {

constexpr const char* kHelp =
    R"(Usage: korvane-utilia [--show-ui]

Shows the tools of the suite in the panel, and starts them when they are due. When it runs
already, or with --show-ui, its window opens.
)";

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (!arguments.empty() && arguments[0] == "--help") {
        std::fputs(kHelp, stdout);
        return 0;
    }
    // The agent ends no session and starts no bus.
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QApplication::setWindowIcon(utilia::agent::agentIcon());
    QApplication::setLayoutDirection(
        QLocale(QString::fromStdString(utilia::agent::textLanguage())).textDirection());
    utilia::integration::QtHost host;
    utilia::desktop::DesktopColors colors;
    colors.follow();
    utilia::agent::AgentApplication agent;
    utilia::platform::Application::sharedApplication().setDelegate(&agent);
    agent.start(arguments);
    const int status = host.exec();
    utilia::platform::Application::sharedApplication().setDelegate(nullptr);
    return status;
}
