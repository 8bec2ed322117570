#pragma once

#include "Common/Foundation/Export.h"
#include "Common/Platform/Alert.h"

namespace utilia {

// Asks whether the agent, which the tool needs, shall be launched: an informational alert with the
// buttons "Launch Korvane Utilia" (NSAlertFirstButtonReturn) and "Quit" (NSAlertSecondButtonReturn),
// in the user's language.
//
// Threads: as Alert.
class UTILIA_EXPORT AgentAlert final : public platform::Alert {
public:
    AgentAlert();
};

}  // namespace utilia
