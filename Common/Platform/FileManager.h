#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"

// Files and folders of the user, and where they belong.
//
// Threads: any.

namespace utilia::platform {

class UTILIA_EXPORT FileManager final {
public:
    FileManager() = delete;

    // The folder that the applications of a group share; made (0700) on the first ask. Empty when it cannot be made
    // or is not this user's; the reason is logged once per process. No "/" at the end.
    static std::optional<std::string>
    containerURLForSecurityApplicationGroupIdentifier(std::string_view groupIdentifier);

    // The folder of the user's preference domains; made (0700) on the first ask. Empty when it cannot be made.
    static std::optional<std::string> preferencesFolder();

    // The folder for sockets, locks and other things of this login: 0700, this user's. Empty when there is none that
    // can be trusted; the reason is logged once per process.
    static std::optional<std::string> runtimeFolder();

    // What the user knows a file by, extension included: for an application the "CFBundleDisplayName" of its
    // Info.plist with ".app", for everything else, also when it does not exist, the last component of its path.
    static std::string displayNameAtPath(std::string_view path);

    // The user's Desktop folder, whether or not it exists.
    static std::string desktopDirectory();

    static bool fileExistsAtPath(std::string_view path);      // follows links
    static bool isWritableFileAtPath(std::string_view path);  // for the real user id, as access(2)
    static bool isExecutableFileAtPath(std::string_view path);

    // With its missing parents, each 0777 less the umask. An existing folder is success and is left as it is.
    static Result<void> createDirectoryAtPath(std::string_view path);
    // As above, with `mode` for every folder that is newly made, whatever the umask.
    static Result<void> createDirectoryAtPath(std::string_view path, std::uint32_t mode);
    // A file, or a folder with its content; never follows links.
    static Result<void> removeItemAtPath(std::string_view path);

    // Fails for anything but a regular file of at most `maximumSize` bytes.
    static Result<Data> contentsAtPath(std::string_view path, std::size_t maximumSize);

    struct ExtendedAttribute {
        std::string name;
        Data value;
    };
    // Replaces the file at once or not at all: a temporary file beside it, its data synced, then rename. A new file
    // gets 0666 less the umask, an existing one keeps its mode. The attributes are on the new file before it gets the name and
    // are set once more after; one that cannot be set is no failure of the write. On failure the old file is as it
    // was and no temporary file stays. What a writer leaves there when it is killed, the next write in that folder
    // removes.
    static Result<void> writeAtomically(std::string_view path, std::span<const std::uint8_t> bytes,
                                        std::span<const ExtendedAttribute> attributes = {});

    // Extended attributes by their plain name, "NSImage.isTemplate".
    static Result<void> setExtendedAttribute(std::string_view path, std::string_view name,
                                             std::span<const std::uint8_t> value);
    // Fails when absent, or longer than `maximumSize`.
    static Result<Data> extendedAttribute(std::string_view path, std::string_view name,
                                          std::size_t maximumSize);
};

}  // namespace utilia::platform
