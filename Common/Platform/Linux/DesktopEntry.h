#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Result.h"

namespace utilia::platform {

class DesktopEntryFile;

// What the desktop entry of an application says about starting it.
struct DesktopEntry {
    std::string program;                 // resolved, executable
    std::vector<std::string> arguments;  // after the program; field codes removed
    std::string bundlePath;              // the application bundle around the program

    // The entry named BUNDLE_IDENTIFIER.desktop in the first "applications" folder of
    // $XDG_DATA_HOME and $XDG_DATA_DIRS that has one: an entry of the user hides those of the
    // system. Fails with NotFound when there is none or it is marked hidden, and otherwise as
    // read().
    static Result<DesktopEntry> find(std::string_view bundleIdentifier);

    // Whether there is such an entry that is not marked hidden, wherever it leads.
    static bool isNamed(std::string_view bundleIdentifier);

    // Fails with NotFound for a hidden entry and for a program that is missing or lies in no
    // application bundle, with Refused for a file that is no well-formed desktop entry of an
    // application.
    static Result<DesktopEntry> read(const std::string& path);
    // The same for a file that has been read, whether or not it is marked hidden.
    static Result<DesktopEntry> of(const DesktopEntryFile& file);
    // Whether the file makes itself depend on a program that is not there.
    static bool isTryExecMissing(const DesktopEntryFile& file);
};

}  // namespace utilia::platform
