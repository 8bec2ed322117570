#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include <sys/types.h>

#include "Common/Foundation/Result.h"
#include "Common/Platform/FileManager.h"

namespace utilia::platform {

// Steps on files that a privileged process may take in a folder where others can write, too: each
// holds on to the item it looked at, and a link at the path itself is never followed unless that is
// said.

// A mode with owner-write first and owner and group after it, any other mode last. Nothing is done
// for attributes that are empty.
Result<void> giveAttributes(const FileAttributes& attributes, const std::string& path);

Result<ItemStatus> statusOf(const std::string& path);

// EEXIST when the new path exists.
Result<void> renameWithoutReplacement(const std::string& path, const std::string& newPath);

// FileManager::writeInPlace() with errors of the system.
Result<void> overwriteFile(const std::string& path, std::span<const std::uint8_t> bytes);

// FileManager::writeToFile() with errors of the system. Follows links.
Result<void> saveFile(const std::string& path, std::span<const std::uint8_t> bytes);

// Empty when there is no such group.
std::optional<gid_t> groupId(const std::string& name);
bool isMember(uid_t user, gid_t group);

}  // namespace utilia::platform
