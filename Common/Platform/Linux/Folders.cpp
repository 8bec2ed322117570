#include "Common/Platform/Linux/Folders.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Platform/Linux/FileAccess.h"

namespace utilia::platform {
namespace {

constexpr std::string_view kProductFolder = "korvane-utilia";
constexpr std::string_view kRuntimeName = "com.korvane.utilia";

// A folder that other users could enter or exchange is no place for sockets and locks.
Result<void> checkPrivate(const std::string& path) {
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0) return Error::posix(errno, "lstat", path);
    if (!S_ISDIR(found.st_mode)) return Error::posix(ENOTDIR, "check", path);
    if (found.st_uid != geteuid()) {
        return Error::utilia(UtiliaErrorCode::Refused, path + ": belongs to another user");
    }
    if ((found.st_mode & 077) != 0) {
        return Error::utilia(UtiliaErrorCode::Refused,
                             path + ": other users may enter it (its mode must be 0700)");
    }
    return {};
}

Result<std::string> privateFolder(std::string path) {
    // Nearly always it is there, and making a folder waits for all who make one beside it.
    auto found = checkPrivate(path);
    if (found) return path;
    if (!found.error().isPosix(ENOENT)) return std::move(found).error();
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        return Error::posix(errno, "mkdir", path);
    if (auto checked = checkPrivate(path); !checked) return std::move(checked).error();
    return path;
}

// The login's runtime folder, or the best substitute that is ours alone.
Result<std::string> sessionRuntimeFolder() {
    if (const char* given = std::getenv("XDG_RUNTIME_DIR"); given && given[0] == '/')
        return std::string(given);
    const std::string usual = "/run/user/" + std::to_string(geteuid());
    if (checkPrivate(usual)) return usual;
    const char* temporary = std::getenv("TMPDIR");
    const std::string base = temporary && temporary[0] == '/' ? temporary : "/tmp";
    return privateFolder(
        stringByAppendingPathComponent(base, "korvane-utilia-" + std::to_string(geteuid())));
}

}  // namespace

std::string homeFolder() {
    if (const char* home = std::getenv("HOME"); home && home[0] == '/') return home;
    const passwd* account = getpwuid(geteuid());
    return account && account->pw_dir ? account->pw_dir : "/";
}

std::string xdgFolder(const char* name, std::string_view otherwise) {
    if (const char* given = std::getenv(name); given && given[0] == '/') return given;
    return stringByAppendingPathComponent(homeFolder(), otherwise);
}

std::vector<std::string> xdgFolders(const char* name, std::string_view otherwise) {
    const char* given = std::getenv(name);
    std::string_view rest = given && given[0] ? given : otherwise;
    std::vector<std::string> folders;
    while (!rest.empty()) {
        const std::string_view folder = rest.substr(0, rest.find(':'));
        rest.remove_prefix(folder.size() < rest.size() ? folder.size() + 1 : folder.size());
        if (folder.starts_with('/')) folders.emplace_back(folder);
    }
    return folders;
}

Result<void> makeFolders(const std::string& path, std::optional<unsigned> mode) {
    return makeFolders(path, FileAttributes{.posixPermissions = mode});
}

Result<void> makeFolders(const std::string& path, const FileAttributes& attributes) {
    // Down to the deepest folder that exists, then up again; usually the first step is the only
    // one.
    std::size_t length = path.size();
    bool isOnTheWayDown = false;
    for (;;) {
        const std::string part = path.substr(0, length);
        if (mkdir(part.c_str(), attributes.posixPermissions.value_or(0777)) == 0) {
            // Also what the umask took away. What cannot be given is no failure.
            (void)giveAttributes(attributes, part);
        } else if (errno == EEXIST || errno == EISDIR) {
            struct stat found {};
            if (stat(part.c_str(), &found) != 0) return Error::posix(errno, "stat", part);
            if (!S_ISDIR(found.st_mode))
                return Error::posix(length == path.size() ? EEXIST : ENOTDIR, "mkdir", part);
        } else if (errno == ENOENT && !isOnTheWayDown &&
                   part.find_last_of('/') != std::string::npos && part.find_last_of('/') > 0) {
            length = part.find_last_of('/');
            continue;
        } else {
            // ENOENT below a folder that exists: a file system that makes none (/proc), or the
            // folder was removed meanwhile.
            return Error::posix(errno, "mkdir", part);
        }
        if (length == path.size()) return {};
        isOnTheWayDown = true;
        length = std::min(path.find('/', length + 1), path.size());
    }
}

std::string preferencesFolderPath() {
    return stringByAppendingPathComponent(xdgFolder("XDG_CONFIG_HOME", ".config"), kProductFolder);
}

std::string groupContainerPath(std::string_view groupIdentifier) {
    std::string path =
        stringByAppendingPathComponent(xdgFolder("XDG_DATA_HOME", ".local/share"), kProductFolder);
    path = stringByAppendingPathComponent(path, "Group Containers");
    return stringByAppendingPathComponent(path, groupIdentifier);
}

std::string libraryFolderPath() {
    const std::string product =
        stringByAppendingPathComponent(xdgFolder("XDG_STATE_HOME", ".local/state"), kProductFolder);
    return stringByAppendingPathComponent(product, "Library");
}

Result<std::string> ensureLibraryFolder() {
    std::string path = libraryFolderPath();
    if (auto made = makeFolders(stringByAppendingPathComponent(path, "Logs"), 0700); !made)
        return std::move(made).error();
    return path;
}

Result<std::string> ensurePreferencesFolder() {
    std::string path = preferencesFolderPath();
    if (auto made = makeFolders(path, 0700); !made) return std::move(made).error();
    return path;
}

Result<std::string> ensureGroupContainer(std::string_view groupIdentifier) {
    std::string path = groupContainerPath(groupIdentifier);
    if (auto made = makeFolders(path, 0700); !made) return std::move(made).error();
    // Its mode is the user's business, and a link may lead there; its owner could read every store.
    struct stat found {};
    if (stat(path.c_str(), &found) != 0) return Error::posix(errno, "stat", path);
    if (found.st_uid != geteuid()) {
        return Error::utilia(UtiliaErrorCode::Refused, path + ": belongs to another user");
    }
    return path;
}

Result<std::string> ensureRuntimeFolder() {
    auto session = sessionRuntimeFolder();
    if (!session) return session;
    return privateFolder(stringByAppendingPathComponent(*session, kRuntimeName));
}

Result<std::string> ensureRuntimeSubfolder(std::string_view name) {
    auto folder = ensureRuntimeFolder();
    if (!folder) return folder;
    return privateFolder(stringByAppendingPathComponent(*folder, name));
}

Result<UniqueFd> openFolder(const std::string& path) {
    UniqueFd folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) return Error::posix(errno, "open", path);
    return folder;
}

}  // namespace utilia::platform
