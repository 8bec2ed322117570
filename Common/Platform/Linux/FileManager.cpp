#include "Common/Platform/FileManager.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/Linux/FileAccess.h"
#include "Common/Platform/Linux/FileInput.h"
#include "Common/Platform/Linux/FileOutput.h"
#include "Common/Platform/Linux/FileReplacement.h"
#include "Common/Platform/Linux/Folders.h"
#include "Common/Platform/Linux/OutOfMemory.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {
namespace {

// A folder that cannot be had is worth one line, however often it is asked for.
std::optional<std::string> folderOrLog(Result<std::string> folder, std::atomic<bool>& isLogged) {
    if (folder) return *std::move(folder);
    if (!isLogged.exchange(true)) KULogVariadic("%@", folder.error().description);
    return std::nullopt;
}

// Answers with the original platform's error codes.
template <class Function>
std::invoke_result_t<Function> withCocoaError(Error::FileAccess access, std::string_view call,
                                              std::string_view path, Function function) {
    auto result = orOutOfMemory(call, path, [&] {
        auto done = function();
        if (!done) done = Error::cocoa(done.error(), access);
        return done;
    });
    // Memory ran out.
    if (!result && result.error().domain == kPosixErrorDomain)
        return Error::cocoa(result.error(), access);
    return result;
}

std::string attributeName(std::string_view name) { return "user." + std::string(name); }

// Removes what lies in an open folder, and never leaves it: every step names its object within a
// descriptor that was opened without following links.
Result<void> removeContent(UniqueFd folder, const std::string& path) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(fdopendir(folder.get()), &closedir);
    if (!entries) return Error::posix(errno, "open", path);
    const int parent = folder.release();
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(entries.get());
        if (!entry) break;
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        const std::string child = path + "/" + name;
        if (unlinkat(parent, name.c_str(), 0) == 0 || errno == ENOENT) continue;
        if (errno != EISDIR && errno != EPERM) return Error::posix(errno, "unlink", child);
        UniqueFd inner(
            openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!inner) return Error::posix(errno, "open", child);
        if (auto removed = removeContent(std::move(inner), child); !removed) return removed;
        if (unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0)
            return Error::posix(errno, "rmdir", child);
    }
    if (errno != 0) return Error::posix(errno, "readdir", path);
    return {};
}

// The value of XDG_DESKTOP_DIR in the user's user-dirs.dirs: a quoted path, absolute or below
// $HOME.
std::optional<std::string> configuredDesktop() {
    std::ifstream file(xdgFolder("XDG_CONFIG_HOME", ".config") + "/user-dirs.dirs");
    constexpr std::string_view kKey = "XDG_DESKTOP_DIR=\"";
    constexpr std::string_view kHome = "$HOME";
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with(kKey)) continue;
        std::string value = line.substr(kKey.size(), line.find('"', kKey.size()) - kKey.size());
        if (value == kHome || value.starts_with("$HOME/"))
            value.replace(0, kHome.size(), homeFolder());
        while (value.size() > 1 && value.ends_with('/')) value.pop_back();
        if (value.starts_with('/')) return value;
    }
    return std::nullopt;
}

constexpr std::size_t kDeepestListed = 64;

// Adds what lies in the folder; answers the errno of a folder that cannot be read.
int listContent(UniqueFd folder, const std::string& prefix, std::size_t depth,
                std::vector<std::string>& subpaths) {
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(fdopendir(folder.get()), &closedir);
    if (!stream) return errno;
    folder.release();
    for (;;) {
        errno = 0;
        const dirent* const entry = readdir(stream.get());
        if (!entry) return errno;
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        const std::string subpath = prefix + entry->d_name;
        subpaths.push_back(subpath);
        if (depth == kDeepestListed) continue;
        UniqueFd inner(openat(dirfd(stream.get()), entry->d_name,
                              O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (inner) (void)listContent(std::move(inner), subpath + "/", depth + 1, subpaths);
    }
}

}  // namespace

std::optional<std::string>
FileManager::containerURLForSecurityApplicationGroupIdentifier(std::string_view groupIdentifier) {
    static std::atomic<bool> isLogged{false};
    return folderOrLog(ensureGroupContainer(groupIdentifier), isLogged);
}

std::optional<std::string> FileManager::preferencesFolder() {
    static std::atomic<bool> isLogged{false};
    return folderOrLog(ensurePreferencesFolder(), isLogged);
}

std::optional<std::string> FileManager::runtimeFolder() {
    static std::atomic<bool> isLogged{false};
    return folderOrLog(ensureRuntimeFolder(), isLogged);
}

Result<std::string> FileManager::findRuntimeFolder() { return ensureRuntimeFolder(); }

std::string FileManager::displayNameAtPath(std::string_view path) {
    std::string fileName = lastPathComponent(path);
    if (pathExtension(fileName) != "app") return fileName;
    const auto bundle = Bundle::bundleWithPath(path);
    const auto given =
        bundle ? bundle->infoDictionary().string("CFBundleDisplayName") : std::nullopt;
    return given && !given->empty() ? *given + ".app" : fileName;
}

std::string FileManager::libraryDirectory() {
    // Whoever puts something there meets the reason again, and can tell it.
    (void)ensureLibraryFolder();
    return libraryFolderPath();
}

std::string FileManager::localApplicationSupportDirectory() { return "/etc"; }

std::optional<std::string> FileManager::administratorsGroup() {
    for (const char* name : {"admin", "sudo", "wheel"}) {
        if (groupId(name)) return name;
    }
    return std::nullopt;
}

std::optional<std::uint32_t> FileManager::idOfGroup(std::string_view name) {
    return groupId(std::string(name));
}

bool FileManager::isUserInGroup(std::uint32_t userId, std::uint32_t groupId) {
    return isMember(userId, groupId);
}

std::string FileManager::desktopDirectory() {
    return configuredDesktop().value_or(stringByAppendingPathComponent(homeFolder(), "Desktop"));
}

bool FileManager::fileExistsAtPath(std::string_view path) {
    struct stat found {};
    return stat(std::string(path).c_str(), &found) == 0;
}

bool FileManager::isDirectoryAtPath(std::string_view path) {
    struct stat found {};
    return stat(std::string(path).c_str(), &found) == 0 && S_ISDIR(found.st_mode);
}

bool FileManager::isNothingAtPath(std::string_view path) {
    struct stat found {};
    return lstat(std::string(path).c_str(), &found) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

bool FileManager::isWritableFileAtPath(std::string_view path) {
    return access(std::string(path).c_str(), W_OK) == 0;
}

bool FileManager::isExecutableFileAtPath(std::string_view path) {
    return access(std::string(path).c_str(), X_OK) == 0;
}

Result<void> FileManager::createDirectoryAtPath(std::string_view path) {
    return orOutOfMemory("mkdir", path, [&]() -> Result<void> {
        return makeFolders(std::string(path), std::nullopt);
    });
}

Result<void> FileManager::createDirectoryAtPath(std::string_view path, std::uint32_t mode) {
    return orOutOfMemory("mkdir", path,
                         [&]() -> Result<void> { return makeFolders(std::string(path), mode); });
}

Result<void> FileManager::createDirectoryAtPath(std::string_view path,
                                                const FileAttributes& attributes) {
    return withCocoaError(Error::FileAccess::Writing, "mkdir", path, [&]() -> Result<void> {
        return makeFolders(std::string(path), attributes);
    });
}

Result<void> FileManager::setAttributes(const FileAttributes& attributes, std::string_view path) {
    return withCocoaError(Error::FileAccess::Writing, "open", path,
                          [&] { return giveAttributes(attributes, std::string(path)); });
}

Result<ItemStatus> FileManager::attributesOfItemAtPath(std::string_view path) {
    return withCocoaError(Error::FileAccess::Reading, "stat", path,
                          [&] { return statusOf(std::string(path)); });
}

Result<void> FileManager::moveItemAtPath(std::string_view path, std::string_view newPath) {
    return withCocoaError(Error::FileAccess::Writing, "rename", path, [&] {
        return renameWithoutReplacement(std::string(path), std::string(newPath));
    });
}

Result<void> FileManager::replaceItemAtURL(std::string_view item, std::string_view withItemAtURL,
                                           std::string_view /*backupItemName*/,
                                           std::optional<std::uint32_t> posixPermissions) {
    return withCocoaError(Error::FileAccess::Writing, "rename", item, [&] {
        return replaceFile(std::string(item), std::string(withItemAtURL), posixPermissions);
    });
}

Result<void> FileManager::removeItemAtPath(std::string_view path) {
    return orOutOfMemory("unlink", path, [&]() -> Result<void> {
        const std::string item(path);
        if (unlink(item.c_str()) == 0) return {};
        if (errno != EISDIR && errno != EPERM) return Error::posix(errno, "unlink", item);
        const int unlinkError = errno;
        UniqueFd folder(open(item.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder) return Error::posix(errno == ENOTDIR ? unlinkError : errno, "unlink", item);
        if (auto removed = removeContent(std::move(folder), item); !removed) return removed;
        if (rmdir(item.c_str()) != 0) return Error::posix(errno, "rmdir", item);
        return {};
    });
}

Result<std::vector<std::string>> FileManager::subpathsOfDirectoryAtPath(std::string_view path) {
    return withCocoaError(
        Error::FileAccess::Reading, "read", path, [&]() -> Result<std::vector<std::string>> {
            const std::string folder(path);
            UniqueFd opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            if (!opened) return Error::posix(errno, "open", folder);
            std::vector<std::string> subpaths;
            if (const int failed = listContent(std::move(opened), "", 0, subpaths); failed != 0)
                return Error::posix(failed, "read", folder);
            return subpaths;
        });
}

Result<Data> FileManager::contentsAtPath(std::string_view path, std::size_t maximumSize) {
    return orOutOfMemory("read", path, [&]() -> Result<Data> {
        return FileInput::contents(std::string(path), maximumSize);
    });
}

Result<Data> FileManager::dataWithContentsOfFile(std::string_view path, std::size_t maximumSize) {
    if (path.empty())
        return Error::cocoa(CocoaErrorCode::FileReadInvalidFileName, "read: there is no path");
    return withCocoaError(Error::FileAccess::Reading, "read", path,
                          [&] { return FileInput::contents(std::string(path), maximumSize); });
}

Result<void> FileManager::writeInPlace(std::string_view path, std::span<const std::uint8_t> bytes) {
    return withCocoaError(Error::FileAccess::Writing, "write", path,
                          [&] { return overwriteFile(std::string(path), bytes); });
}

Result<void> FileManager::writeToFile(std::string_view path, std::span<const std::uint8_t> bytes) {
    return withCocoaError(Error::FileAccess::Writing, "write", path,
                          [&] { return saveFile(std::string(path), bytes); });
}

Result<void> FileManager::writeAtomically(std::string_view path,
                                          std::span<const std::uint8_t> bytes,
                                          std::span<const ExtendedAttribute> attributes) {
    return orOutOfMemory("write", path, [&]() -> Result<void> {
        const std::string target(path);
        auto output = FileOutput::createFor(target);
        if (!output) return std::move(output).error();
        if (auto written = output->write(bytes); !written) return written;
        for (const ExtendedAttribute& attribute : attributes) {
            (void)fsetxattr(output->descriptor(), attributeName(attribute.name).c_str(),
                            attribute.value.data(), attribute.value.size(), 0);
        }
        if (auto published = output->publish(); !published) return published;
        for (const ExtendedAttribute& attribute : attributes) {
            (void)fsetxattr(output->descriptor(), attributeName(attribute.name).c_str(),
                            attribute.value.data(), attribute.value.size(), 0);
        }
        return {};
    });
}

Result<void> FileManager::setExtendedAttribute(std::string_view path, std::string_view name,
                                               std::span<const std::uint8_t> value) {
    return orOutOfMemory("setxattr", path, [&]() -> Result<void> {
        const std::string file(path);
        if (setxattr(file.c_str(), attributeName(name).c_str(), value.data(), value.size(), 0) !=
            0) {
            return Error::posix(errno, "setxattr", file);
        }
        return {};
    });
}

Result<Data> FileManager::extendedAttribute(std::string_view path, std::string_view name,
                                            std::size_t maximumSize) {
    return orOutOfMemory("getxattr", path, [&]() -> Result<Data> {
        const std::string file(path);
        // One byte more than asked for: with a buffer of no bytes the kernel would answer the size
        // instead.
        Data value(maximumSize + 1);
        const ssize_t size =
            getxattr(file.c_str(), attributeName(name).c_str(), value.data(), value.size());
        if (size < 0) return Error::posix(errno, "getxattr", file);
        if (static_cast<std::size_t>(size) > maximumSize)
            return Error::posix(ERANGE, "getxattr", file);
        value.resize(static_cast<std::size_t>(size));
        return value;
    });
}

}  // namespace utilia::platform
