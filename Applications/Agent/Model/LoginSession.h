#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Applications/Agent/Model/ToolEntry.h"

namespace utilia::agent {

// What happens once in each login, however often the agent is started in it.
//
// The last login that was seen is kept in a file of the runtime folder, which the system removes after the last logout:
// the session's number and the machine's boot. Until finish() it is marked as begun: an agent that is killed while it
// starts tools does all of it again, which passes over those that run.
//
// A session whose number is not known is taken for the one that the file names, if that is of this boot and was acted on; one
// that was acted on without a number takes the first that is learnt. So a login manager that is silent for a moment makes no
// new login; where it is silent for good, there is one until the system removes the file.
class LoginSession final {
public:
    LoginSession() = delete;

    using Number = std::optional<std::string>;

    // $XDG_SESSION_ID; where it is missing DisplaySession may know.
    static Number numberInEnvironment();
    // Whether what happens once in this login is still to be done. False, with one log line, where that cannot be
    // remembered.
    static bool isNew(const Number& session);
    // Whether the session starts the agent now, for a call that is the first in the login: the agent is one of its
    // items, or the launcher is at work, which starts the agent for its tools.
    static bool isBringingUsUp();
    // It is done.
    static void finish(const Number& session);

    // Those of the tools that have asked to be started at login (their scheduler records) and that the launcher does
    // not start already (its list).
    static std::vector<std::string> toolsToStart(const std::vector<ToolEntry>& tools);
};

}  // namespace utilia::agent
