#include "Common/UtiliaCommon/AgentAlert.h"

#include "Common/Foundation/PathFunctions.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/ProcessInfo.h"
#include "Common/UtiliaCommon/LocalizedTexts.h"

namespace utilia {
namespace {

std::string toolName() {
    const platform::Bundle* const bundle = platform::Bundle::mainBundle();
    if (!bundle) return platform::ProcessInfo::processName();
    return stringByDeletingPathExtension(
        platform::FileManager::displayNameAtPath(bundle->bundlePath()));
}

}  // namespace

AgentAlert::AgentAlert() {
    setAlertStyle(platform::AlertStyle::Informational);
    setMessageText(textWithName(localizedText(kAgentRequiredText), kAgentRequiredText, toolName()));
    addButtonWithTitle(localizedText(kLaunchAgentText));
    addButtonWithTitle(localizedText(kQuitText));
}

}  // namespace utilia
