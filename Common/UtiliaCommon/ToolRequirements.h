#pragma once

#include "Common/Foundation/Export.h"

namespace utilia {

// What a tool needs before it can run: one whose Info.plist says "NeedAgentForWork" in
// "ToolCapabilities" needs the agent.
//
// Threads: the main thread.
class UTILIA_EXPORT ToolRequirements final {
public:
    ToolRequirements() = delete;

    // Whether the tool may go on. One that needs an agent that does not run asks the user first
    // (AgentAlert), and then launches it; false when the user chose to quit, or when the launch is
    // refused, which is logged. Does not wait for the agent to be up.
    static bool checkToolCanRun() { return checkToolCanRun(false); }
    // With `launchWithoutAsking` the agent is launched without a question, unless it runs, also for
    // a tool that does not need it.
    static bool checkToolCanRun(bool launchWithoutAsking);
};

}  // namespace utilia
