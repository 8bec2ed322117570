#pragma once

#include <QStringList>

#include "Applications/Agent/Model/ToolEntry.h"

namespace utilia::agent {

// What a tool does at the moment, in the user's words, the most important first; empty for a tool that is not ready.

// As it stands beside a lamp, which is filled for one that is active.
QStringList shownStates(const ToolEntry& tool);
// As it is read aloud, where neither a lamp nor the check of a menu is seen.
QStringList spokenStates(const ToolEntry& tool);

}  // namespace utilia::agent
