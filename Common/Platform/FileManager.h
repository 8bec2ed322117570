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

// Files and folders, and where they belong.
//
// Threads: any.

namespace utilia::platform {

// What a file or folder shall get; what is empty stays as it is.
struct FileAttributes {
    std::optional<std::uint32_t> ownerAccountId = {};
    std::optional<std::uint32_t> groupOwnerAccountId = {};
    std::optional<std::string> groupOwnerAccountName = {};  // the id wins
    std::optional<std::uint32_t> posixPermissions = {};
};

struct ItemStatus {
    enum class Type { RegularFile, Directory, SymbolicLink, Other };

    Type type = Type::Other;
    std::uint64_t size = 0;
    std::uint32_t ownerAccountId = 0;
    std::uint32_t groupOwnerAccountId = 0;
    std::uint32_t posixPermissions = 0;  // the lower twelve bits
};

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
    // The same for those who tell the reason themselves: it is the error, and not logged.
    static Result<std::string> findRuntimeFolder();

    // The user's Library folder, with no "/" at the end. It and its folder Logs are made (0700) on each ask as far as
    // they are missing and can be made; where that fails the path is answered all the same.
    static std::string libraryDirectory();

    // The machine-wide place for what belongs to all users, whether or not it exists.
    static std::string localApplicationSupportDirectory();

    // The group of those who may administer this machine: the first of "admin", "sudo" and "wheel" that exists.
    static std::optional<std::string> administratorsGroup();
    // Empty when there is no such group.
    static std::optional<std::uint32_t> idOfGroup(std::string_view name);
    // Whether a user belongs to a group, by his account or by the group's list.
    static bool isUserInGroup(std::uint32_t userId, std::uint32_t groupId);

    // What the user knows a file by, extension included: for an application the "CFBundleDisplayName" of its
    // Info.plist with ".app", for everything else, also when it does not exist, the last component of its path.
    static std::string displayNameAtPath(std::string_view path);

    // The user's Desktop folder, whether or not it exists.
    static std::string desktopDirectory();

    static bool fileExistsAtPath(std::string_view path);      // follows links
    static bool isDirectoryAtPath(std::string_view path);     // follows links
    static bool isWritableFileAtPath(std::string_view path);  // for the real user id, as access(2)
    static bool isExecutableFileAtPath(std::string_view path);

    // With its missing parents, each 0777 less the umask. An existing folder is success and is left as it is.
    static Result<void> createDirectoryAtPath(std::string_view path);
    // As above, with `mode` for every folder that is newly made, whatever the umask.
    static Result<void> createDirectoryAtPath(std::string_view path, std::uint32_t mode);
    // With its missing parents. An existing folder is success and is left as it is; every folder that is newly made
    // gets the attributes as far as they can be given. Fails like the original platform's file functions, with file
    // errors of kCocoaErrorDomain, as do the functions below that say so.
    static Result<void> createDirectoryAtPath(std::string_view path,
                                              const FileAttributes& attributes);
    // What a file or folder is given, the rest stays. A group name that no group has is left out silently. Never
    // follows a link at the path itself. Cocoa errors.
    static Result<void> setAttributes(const FileAttributes& attributes, std::string_view path);
    // True when there is certainly nothing at the path, not even a link that leads nowhere.
    static bool isNothingAtPath(std::string_view path);
    // Of the item itself, also when it is a link. Cocoa errors.
    static Result<ItemStatus> attributesOfItemAtPath(std::string_view path);
    // Renames within a file system; what exists at the new path is never replaced. Cocoa errors.
    static Result<void> moveItemAtPath(std::string_view path, std::string_view newPath);
    // Moves a file to where another one is, or none yet: at any moment the whole old one or the whole new one is there,
    // also for those who run it, and from another file system too. On success the file is gone from its old place, its
    // data is on the disk, and it has its own metadata and no set-user-ID bits of another owner. On failure everything is
    // as it was. A file that this user may not read is moved without waiting for the disk, and not at all from another file
    // system. Links are neither moved nor followed to the folder of `item`, though what lies there may be one and is
    // replaced itself.
    //
    // `posixPermissions` are the file's, if they can be given, before it has its new place. `backupItemName` is what the
    // old file is called meanwhile where a system cannot replace it in one step; this one can, and never makes a backup.
    // Cocoa errors.
    static Result<void> replaceItemAtURL(std::string_view item, std::string_view withItemAtURL,
                                         std::string_view backupItemName,
                                         std::optional<std::uint32_t> posixPermissions = {});
    // A file, or a folder with its content; never follows links.
    static Result<void> removeItemAtPath(std::string_view path);
    // What lies in a folder and in the folders below it, by paths relative to it, each before what lies in it and
    // otherwise in no certain order. Links are listed and not followed; folders below that cannot be read are listed
    // without their content, and so are those more than 64 deep. Cocoa errors.
    static Result<std::vector<std::string>> subpathsOfDirectoryAtPath(std::string_view path);

    // Fails for anything but a regular file of at most `maximumSize` bytes.
    static Result<Data> contentsAtPath(std::string_view path, std::size_t maximumSize);

    // The same with Cocoa errors.
    static Result<Data> dataWithContentsOfFile(std::string_view path, std::size_t maximumSize);
    // Writes a file in place: a new one gets 0666 less the umask, an existing one is emptied first and keeps owner, mode
    // and inode. Readers can meet the half of it, and a failure half way leaves what was written until then. Refuses
    // links at the path itself and everything but regular files, and never waits for the other end of a pipe. Cocoa
    // errors.
    static Result<void> writeInPlace(std::string_view path, std::span<const std::uint8_t> bytes);
    // The same for what a user saves where he likes: links are followed, and a file that was not there before is removed
    // again when it cannot be written whole.
    static Result<void> writeToFile(std::string_view path, std::span<const std::uint8_t> bytes);

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
