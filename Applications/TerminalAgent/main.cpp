#include <iostream>
#include <string_view>

#include "Applications/TerminalAgent/Agent.h"
#include "Common/Platform/Application.h"

namespace {

constexpr std::string_view kHelp =
    R"(Usage: korvane-utilia-terminal [COMMAND [TOOL]]

Without an agent that runs already: starts one, which prints what the tools say until it is ended.
Otherwise hands the command to the agent that runs, and ends.

  show [TOOL]    print all that is known (the default)
  launch TOOL    start the tool, or bring it to the front
  status TOOL    ask the tool for its status
  click TOOL     the tool's menu icon was clicked
  off TOOL       turn the tool off
  quit           end the agent

TOOL is the name of a tool's bundle without ".app".
)";

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string_view(argv[1]) == "--help") {
        std::cout << kHelp;
        return 0;
    }
    auto& application = utilia::platform::Application::sharedApplication();
    application.finishLaunching();  // a second start hands its arguments over and ends here

    utilia::agent::Agent agent;
    application.setDelegate(&agent);
    agent.start();
    return application.run();
}
