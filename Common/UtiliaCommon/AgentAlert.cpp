#include "Common/UtiliaCommon/AgentAlert.h"

#include "Common/Platform/ApplicationName.h"
#include "Common/UtiliaCommon/LocalizedTexts.h"

namespace utilia {
AgentAlert::AgentAlert() {
    setAlertStyle(platform::AlertStyle::Informational);
    setMessageText(textWithName(localizedText(kAgentRequiredText), kAgentRequiredText,
                                platform::applicationName()));
    addButtonWithTitle(localizedText(kLaunchAgentText));
    addButtonWithTitle(localizedText(kQuitText));
}

}  // namespace utilia
