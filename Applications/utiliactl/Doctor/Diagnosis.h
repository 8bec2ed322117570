#pragma once

#include <string>
#include <vector>

namespace utilia::control {

// What a look at one thing has shown.
struct Diagnosis {
    enum class Severity {
        Good,
        Notice,   // works, but a person may want to know
        Warning,  // works with less than there should be
        Error,    // does not work
    };

    std::string check;  // what was looked at, such as "session bus"
    Severity severity = Severity::Good;
    std::string message;
    std::string advice;  // what to do; empty for what is good, and only then
};

using Diagnoses = std::vector<Diagnosis>;

// Each looks at its part of the product as it is for this user and session now, and changes
// nothing in his home. A check that finds several things wrong answers each of them.

Diagnoses checkSession();  // the bus, and a panel that shows status icons
Diagnoses checkRuntime();  // the runtime folder and the ports
Diagnoses checkStore();    // preferences, shared store and its lock, logs, and the room for them
Diagnoses checkLogin();    // what is started at login
Diagnoses checkPolicy();   // the administrator's settings
Diagnoses checkInstallation();  // the framework's modules, and the programs that it needs

}  // namespace utilia::control
