#pragma once

#include <filesystem>
#include <string>

#include "Applications/utiliactl/Doctor/Diagnosis.h"

namespace utilia::control {

// The folder that the variable names by an absolute path, or else this one below the user's home.
std::filesystem::path folderOfUser(const char* variable, const char* otherwise);

// The folder itself, or where it is missing the nearest one above it that is there: it would be made in that one.
std::filesystem::path nearestFolder(std::filesystem::path path);

// Whether files can be made in the folder, or the folder itself. `place` says for the advice which setting leads there,
// `loss` for the message what does not work otherwise.
Diagnosis diagnoseFolder(const char* check, const std::filesystem::path& folder,
                         const std::string& place, const std::string& loss);

}  // namespace utilia::control
