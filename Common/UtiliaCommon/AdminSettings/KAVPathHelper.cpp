#include "Common/UtiliaCommon/AdminSettings/KAVPathHelper.h"

#include <cstdint>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/FileManager.h"

namespace utilia {
namespace {

using platform::FileAttributes;
using platform::FileManager;

constexpr std::uint32_t kFolderPermissions = 0775;
constexpr std::uint32_t kFilePermissions = 0664;

// Without a group of administrators there is still user 0's own.
FileAttributes attributesOfAdministrators(std::uint32_t permissions) {
    FileAttributes attributes{.posixPermissions = permissions};
    attributes.groupOwnerAccountName = FileManager::administratorsGroup();
    if (!attributes.groupOwnerAccountName) attributes.groupOwnerAccountId = 0;
    return attributes;
}

}  // namespace

std::string KAVPathHelper::filePath() {
    return stringByAppendingPathComponent(dirPath(), "settings.conf");
}

std::string KAVPathHelper::dirPath() {
    return stringByAppendingPathComponent(appSupportDirPath(), "com.korvane.utilia");
}

std::string KAVPathHelper::appSupportDirPath() {
    return FileManager::localApplicationSupportDirectory();
}

bool KAVPathHelper::createFolderAtPath(std::string_view path, Error* error) {
    FileAttributes attributes = attributesOfAdministrators(kFolderPermissions);
    attributes.ownerAccountId = 0;
    const auto created = FileManager::createDirectoryAtPath(path, attributes);
    if (!created && error) *error = created.error();
    return created.has_value();
}

bool KAVPathHelper::setPermissionsToFileAtPath(std::string_view path, Error* error) {
    const auto set = FileManager::setAttributes(attributesOfAdministrators(kFilePermissions), path);
    if (set) return true;
    KULogVariadic("Unable to set permissions to file '%@' due error %ld, %@", path,
                  set.error().code, set.error().text());
    if (error) *error = set.error();
    return false;
}

}  // namespace utilia
