#include "Applications/Agent/Model/StandingMessages.h"

#include "Applications/Agent/AgentTextKeys.h"

namespace utilia::agent {

std::vector<StandingMessage> standingMessages(const Troubles& troubles) {
    std::vector<StandingMessage> all;
    switch (troubles.bus) {
    case Troubles::Bus::Missing:
        all.push_back({kNoBusText, {}});
        break;
    case Troubles::Bus::Lost:
        all.push_back({kBusLostText, {}});
        break;
    case Troubles::Bus::None:
        if (troubles.isWithoutPanel) all.push_back({kNoTrayText, {}});
        break;
    }
    if (troubles.unwritableFolder) all.push_back({kCannotKeepText, *troubles.unwritableFolder});
    for (const std::string& tool : troubles.unresponsiveTools)
        all.push_back({kNotRespondingText, tool});
    return all;
}

}  // namespace utilia::agent
