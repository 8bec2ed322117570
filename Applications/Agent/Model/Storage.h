#pragma once

#include <optional>
#include <string>

namespace utilia::agent {

// Where the agent and the tools keep what lasts: the preferences, the shared store, and the logs.
//
// Threads: any.
class Storage final {
public:
    Storage() = delete;

    // The first of these folders that cannot be written now, or cannot even be made; empty when all is well. What is set
    // there meanwhile is lost, and what was stored before stays.
    static std::optional<std::string> unwritableFolder();
    // The folder of the file that all applications share, made (0700) when it is asked for; empty when that cannot be.
    static std::optional<std::string> sharedFolder();
};

}  // namespace utilia::agent
