#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Result.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {

// Where things of ours lie, from the XDG variables as they are at the call; made (0700) when they
// are missing. Relative values of the variables are ignored, as their standard asks. Each fails
// with the error of the call that made it impossible.

Result<std::string> ensurePreferencesFolder();  // $XDG_CONFIG_HOME/korvane-utilia
Result<std::string> ensureGroupContainer(
    std::string_view groupIdentifier);      // $XDG_DATA_HOME/korvane-utilia/Group Containers/…
Result<std::string> ensureLibraryFolder();  // $XDG_STATE_HOME/korvane-utilia/Library, with Logs
Result<std::string> ensureRuntimeFolder();  // $XDG_RUNTIME_DIR/com.korvane.utilia
Result<std::string> ensureRuntimeSubfolder(std::string_view name);  // a 0700 folder in it

// Opens a folder (O_PATH is not used: the descriptor can be locked and synced).
Result<UniqueFd> openFolder(const std::string& path);

// The user's home folder: $HOME when it is absolute, else the account's.
std::string homeFolder();
// $NAME when it is set to an absolute path, else HOME/`otherwise`.
std::string xdgFolder(const char* name, std::string_view otherwise);
// The absolute folders of $NAME, a list with colons, or of `otherwise` when it is not set.
std::vector<std::string> xdgFolders(const char* name, std::string_view otherwise);

// The same places without making anything.
std::string preferencesFolderPath();
std::string groupContainerPath(std::string_view groupIdentifier);
std::string libraryFolderPath();

// The folder with its missing parents. Each new one gets exactly `mode`, or 0777 less the umask
// without one. An existing folder is left as it is; a file in its place is EEXIST, a file on the
// way ENOTDIR.
Result<void> makeFolders(const std::string& path, std::optional<unsigned> mode);
// The same; each new one gets the attributes as far as they can be given.
Result<void> makeFolders(const std::string& path, const FileAttributes& attributes);

}  // namespace utilia::platform
