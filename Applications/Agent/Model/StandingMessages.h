#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace utilia::agent {

// What is amiss around the agent, for as long as it is.
struct Troubles {
    enum class Bus { None, Missing, Lost };

    Bus bus = Bus::None;
    bool isWithoutPanel = false;
    std::optional<std::string> unwritableFolder = {};
    std::vector<std::string> unresponsiveTools = {};  // their names
};

// One text of the agent's, by its key, with what stands for "%@" in it.
struct StandingMessage {
    std::string_view key;
    std::string name;

    friend bool operator==(const StandingMessage&, const StandingMessage&) = default;
};

// What the window says of them, in this order. Of the status icon only the cause that matters: without a bus there is no
// panel to look for.
std::vector<StandingMessage> standingMessages(const Troubles& troubles);

}  // namespace utilia::agent
