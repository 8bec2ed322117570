#pragma once

#include <string>
#include <vector>

#include "Applications/Agent/Model/ToolEntry.h"

namespace utilia::agent {

// What happens once in each login, however often the agent is started in it.
//
// The last login that was seen is kept in a file of the runtime folder, which the system removes after the last logout:
// the session's number ($XDG_SESSION_ID) and the machine's boot. Until finish() it is marked as begun: an agent that is
// killed while it starts tools does all of it again, which passes over those that run.
class LoginSession final {
public:
    LoginSession() = delete;

    // Whether what happens once in this login is still to be done. False, with one log line, where that cannot be
    // remembered.
    static bool isNew();
    // Whether the session starts the agent now, for a call that is the first in the login: the agent is one of its
    // items, or the launcher is at work, which starts the agent for its tools.
    static bool isBringingUsUp();
    // It is done.
    static void finish();

    // Those of the tools that have asked to be started at login (their scheduler records) and that the launcher does
    // not start already (its list).
    static std::vector<std::string> toolsToStart(const std::vector<ToolEntry>& tools);
};

}  // namespace utilia::agent
