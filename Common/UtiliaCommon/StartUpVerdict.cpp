#include "Common/UtiliaCommon/StartUpVerdict.h"

#include <algorithm>

namespace utilia {

StartUpVerdict startUpVerdict(const std::vector<std::string>& arguments,
                              const StartUpChecks& checks) {
    if (std::find(arguments.begin(), arguments.end(), kTurnOffArgument) != arguments.end())
        return StartUpVerdict::ShutOff;
    const ToolRestriction restriction = checks.restriction();
    // Only the white-list stops a tool. One that the catalogue does not know is not allowed either,
    // and goes on.
    if (!restriction.isAllowed && restriction.isInSet && restriction.isRestricted)
        return StartUpVerdict::Restricted;
    return checks.requirementsAreMet() ? StartUpVerdict::Run : StartUpVerdict::RequirementsNotMet;
}

}  // namespace utilia
