#pragma once

#include <string>
#include <string_view>

#include <QString>

#include "Applications/Agent/AgentTextKeys.h"

namespace utilia::agent {

// In the user's language, from the agent's own bundle; the key itself without a translation.
QString text(std::string_view key);
// With `name` in the place of each "%@".
QString textWithName(std::string_view key, const QString& name);

// The language of these texts, which is the layout's direction too.
std::string textLanguage();

}  // namespace utilia::agent
