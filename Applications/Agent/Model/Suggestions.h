#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Applications/Agent/Model/ToolEntry.h"

namespace utilia::agent {

// Keys of the agent's preferences.
inline constexpr std::string_view kSuggestionsDisabledKey = "SuggestionsDisabled";  // boolean
inline constexpr std::string_view kKnownToolsKey = "KnownTools";                    // identifiers

// Which tool the agent suggests: the first one that is ready, and that the user neither has used nor wants to hear of.
// None while a tool has suggestions paused, and when the user has switched them off.
//
// Threads: the main thread.
class Suggestions final {
public:
    Suggestions() = delete;

    static std::optional<std::string> next(const std::vector<ToolEntry>& tools);
    // The user knows the tool now: it has run, or he does not want it suggested again. Written once.
    static void setKnown(const std::string& identifier);
    static bool areEnabled();
    static void setEnabled(bool enabled);
};

}  // namespace utilia::agent
