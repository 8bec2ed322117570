#include "Applications/utiliactl/Doctor/FolderCheck.h"

#include <cstdlib>
#include <system_error>

#include <unistd.h>

#include "Common/Platform/FileManager.h"

namespace utilia::control {

namespace fs = std::filesystem;
using platform::FileManager;
using Severity = Diagnosis::Severity;

fs::path folderOfUser(const char* variable, const char* otherwise) {
    const char* const given = std::getenv(variable);
    if (given && given[0] == '/') return given;
    const char* const home = std::getenv("HOME");
    return fs::path(home ? home : "/") / otherwise;
}

fs::path nearestFolder(fs::path path) {
    while (path.has_relative_path() && FileManager::isNothingAtPath(path.string()))
        path = path.parent_path();
    return path;
}

Diagnosis diagnoseFolder(const char* check, const fs::path& folder, const std::string& place,
                         const std::string& loss) {
    std::error_code error;
    const fs::path nearest = nearestFolder(folder);
    const std::string advice =
        place +
        " must be a folder that is yours and writable: look at the owner and the mode "
        "of " +
        nearest.string() + ", and whether its disk is mounted read-only.";
    if (!FileManager::isDirectoryAtPath(nearest.string()))
        return {check, Severity::Error, nearest.string() + " is not a folder", advice};
    const auto status = FileManager::attributesOfItemAtPath(fs::canonical(nearest, error).string());
    if (nearest == folder && status && status->ownerAccountId != geteuid())
        return {check, Severity::Error, nearest.string() + " belongs to another user", advice};
    if (!FileManager::isWritableFileAtPath(nearest.string())) {
        return {check, Severity::Error, nearest.string() + " cannot be written; " + loss, advice};
    }
    return {check, Severity::Good, folder.string(), ""};
}

}  // namespace utilia::control
