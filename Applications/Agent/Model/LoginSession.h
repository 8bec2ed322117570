#pragma once

#include <string>
#include <vector>

#include "Applications/Agent/Model/ToolEntry.h"

namespace utilia::agent {

// What happens once in each login, however often the agent is started in it.
//
// The last login that was seen is kept in a file of the runtime folder, which the system removes after the last logout:
// the session's number ($XDG_SESSION_ID) and the machine's boot. It is written before anything is started, so that an
// agent that is killed meanwhile does not start the tools twice.
class LoginSession final {
public:
    LoginSession() = delete;

    // Whether this is the first call in this login. False, with one log line, where that cannot be remembered.
    static bool isNew();

    // Those of the tools that have asked to be started at login (their scheduler records) and that the launcher does
    // not start already (its list).
    static std::vector<std::string> toolsToStart(const std::vector<ToolEntry>& tools);
};

}  // namespace utilia::agent
