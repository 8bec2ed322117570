#pragma once

#include <string>
#include <vector>

#include "Common/Foundation/Value.h"
#include "Common/Platform/JSONSerialization.h"

namespace utilia::control {

// Something about the administrator's settings that a person should know.
struct Finding {
    enum class Severity {
        Error,    // the settings do not work, or are not safe
        Warning,  // a part of them has no effect
        Notice,   // they work, perhaps not as meant
    };

    Severity severity = Severity::Notice;
    std::string path;
    platform::JSONPosition position;  // line 0: of no certain place
    std::string message;
};

// What the settings say, apart from where they lie.
std::vector<Finding> checkSettings(const Dictionary& settings);

// The file, its folder, and what it says, as they are now.
std::vector<Finding> checkSettingsFile();

}  // namespace utilia::control
