#include "Common/Platform/ApplicationName.h"

#include "Common/Foundation/PathFunctions.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/ProcessInfo.h"

namespace utilia::platform {

std::string applicationName() {
    const Bundle* const bundle = Bundle::mainBundle();
    if (!bundle) return ProcessInfo::processName();
    return stringByDeletingPathExtension(FileManager::displayNameAtPath(bundle->bundlePath()));
}

}  // namespace utilia::platform
