#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace utilia::platform {

class Bundle;

// The application bundle that a program lies in: X.app for X.app/Contents/Linux/PROGRAM if there
// is X.app/Contents/Info.plist as well; empty for any other place. `program` is absolute and
// resolved.
std::optional<std::string> bundlePathOfProgram(std::string_view program);

// The program of a process, as the kernel names it; empty when it cannot be told or its file is
// gone.
std::optional<std::string> programOfProcess(std::string_view process);  // "self" or a process id

// The resolved main program of an application; empty when it has none, or one outside of the bundle.
std::optional<std::string> mainProgramOfBundle(const Bundle& bundle);

// The path without symbolic links; empty when it does not lead anywhere.
std::optional<std::string> resolvedPath(const std::string& path);

}  // namespace utilia::platform
