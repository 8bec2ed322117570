#include "Applications/Agent/Model/Storage.h"

#include "Common/Foundation/PathFunctions.h"
#include "Common/Platform/FileManager.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

namespace utilia::agent {
namespace {

using platform::FileManager;

// What is missing is judged by the folder that it would be made in.
std::string nearest(std::string path) {
    while (path.size() > 1 && FileManager::isNothingAtPath(path))
        path = stringByDeletingLastPathComponent(path);
    return path;
}

}  // namespace

std::optional<std::string> Storage::unwritableFolder() {
    // Asking for them makes them, and says in the log what stands in the way.
    const auto preferences = FileManager::preferencesFolder();
    const auto shared = sharedFolder();
    const std::string library = FileManager::libraryDirectory();
    for (const auto& folder : {preferences, shared, std::optional(library)}) {
        // Where not even the path is known, the one of the logs lies in the same home.
        const std::string place = nearest(folder.value_or(library));
        if (!folder || !FileManager::isWritableFileAtPath(place)) return place;
    }
    return std::nullopt;
}

std::optional<std::string> Storage::sharedFolder() {
    const auto container =
        FileManager::containerURLForSecurityApplicationGroupIdentifier(kAppGroupIdentifier);
    if (!container) return std::nullopt;
    const std::string folder = *container + "/Library/Preferences";
    if (!FileManager::createDirectoryAtPath(folder, 0700)) return std::nullopt;
    return folder;
}

}  // namespace utilia::agent
