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
    std::string advice;  // what to do; empty when there is nothing to do
};

using Diagnoses = std::vector<Diagnosis>;

// Each looks at its part of the product as it is for this user and session now, and changes
// nothing. A check that finds several things wrong answers each of them.

Diagnoses checkSession();       // the bus, and a panel that shows status icons
Diagnoses checkRuntime();       // the runtime folder and the ports
Diagnoses checkStore();         // the lock and the content of the shared store, and the room for it
Diagnoses checkLogin();         // what is started at login
Diagnoses checkPolicy();        // the administrator's settings
Diagnoses checkInstallation();  // the framework's modules, and the programs that it needs

}  // namespace utilia::control
