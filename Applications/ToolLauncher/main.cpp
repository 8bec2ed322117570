#include <iostream>
#include <string_view>
#include <thread>

#include "Applications/ToolLauncher/ToolLauncher.h"
#include "Common/Platform/Application.h"
#include "Common/Platform/RunLoop.h"

namespace {

using utilia::ToolSets;
using utilia::launcher::ToolLauncher;

constexpr std::string_view kHelp =
    R"(Usage: utilia-tool-launcher [--dry-run]

Starts the tools that the user wants at login, and ends. Tools that run already, that are not
installed or that the administrator does not allow are passed over. "utiliactl login" shows and
changes the list.

  --dry-run  print what would be done, and do nothing
  --help     this text
)";

const char* describe(ToolLauncher::Fate fate) {
    switch (fate) {
    case ToolLauncher::Fate::Start:
        return "start          ";
    case ToolLauncher::Fate::Running:
        return "running        ";
    case ToolLauncher::Fate::NotInstalled:
        return "not installed  ";
    case ToolLauncher::Fate::Restricted:
        return "restricted     ";
    }
    return "";
}

std::shared_ptr<ToolSets> toolSets() {
    auto shared = ToolSets::sharedInstance();
    return shared ? shared : ToolSets::createSharedInstance();
}

void printPlan() {
    for (const auto& step : ToolLauncher(toolSets()).plan()) {
        std::cout << describe(step.fate) << step.bundleIdentifier
                  << (step.needsAgent ? " (needs the agent)" : "") << "\n";
    }
    std::cout.flush();
}

int startTools() {
    auto& application = utilia::platform::Application::sharedApplication();
    application.finishLaunching();  // a second start ends here
    ToolLauncher launcher(toolSets());
    std::thread worker([&] {
        launcher.run();
        utilia::platform::MainQueue::async([&] { application.terminate(); });
    });
    const int status = application.run();  // also ended by the session's end
    launcher.stop();
    worker.join();
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view argument = argc > 1 ? argv[1] : "";
    if (argc == 1) return startTools();
    if (argc == 2 && argument == "--dry-run") {
        printPlan();
        return 0;
    }
    if (argc == 2 && argument == "--help") {
        std::cout << kHelp;
        return 0;
    }
    // There is nothing to turn off: this program ends by itself.
    if (argument == "--turn-off") return 0;
    std::cerr << "utilia-tool-launcher: wrong usage\n" << kHelp;
    return 2;
}
