#include "Applications/Agent/Interface/ToolStates.h"

#include "Applications/Agent/AgentTexts.h"

namespace utilia::agent {

QStringList shownStates(const ToolEntry& tool) {
    if (!tool.isReady()) return {};
    QStringList all{text(tool.isRunning ? kRunningText : kOffText)};
    if (tool.isPermanent()) all.append(text(kPermanentText));
    return all;
}

QStringList spokenStates(const ToolEntry& tool) {
    QStringList all = shownStates(tool);
    if (tool.isReady() && tool.isRunning && tool.isActive()) all.append(text(kActiveText));
    return all;
}

}  // namespace utilia::agent
