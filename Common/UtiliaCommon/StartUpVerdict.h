#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Export.h"

// What becomes of a tool that is started, as a pure function of what the checks answer.
//
// Threads: any.

namespace utilia {

// The whole argument that shuts a tool off. Contract: never rename.
inline constexpr std::string_view kTurnOffArgument = "--turn-off";

enum class StartUpVerdict {
    Run,
    ShutOff,            // it comes up without any check, only to end
    Restricted,         // the administrator's white-list leaves it out
    RequirementsNotMet  // what it needs is not there, or the user chose to quit
};

// What the administrator's settings say about a tool.
struct ToolRestriction {
    bool isAllowed = true;
    bool isInSet = false;       // the catalogue has it
    bool isRestricted = false;  // there is a white-list, which does not have it
};

// The checks, in their order. A check is asked at most once, and not at all when one before it has
// decided: the second may ask the user.
struct StartUpChecks {
    std::function<ToolRestriction()> restriction;
    std::function<bool()> requirementsAreMet;
};

// `arguments` are the process's, its name included.
UTILIA_EXPORT StartUpVerdict startUpVerdict(const std::vector<std::string>& arguments,
                                            const StartUpChecks& checks);

}  // namespace utilia
