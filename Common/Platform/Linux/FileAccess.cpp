#include "Common/Platform/Linux/FileAccess.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {
namespace {

UniqueFd openFollowing(const std::string& path, int flags) {
    int descriptor;
    do {
        descriptor = open(path.c_str(), flags | O_CLOEXEC, 0666);
    } while (descriptor < 0 && errno == EINTR);
    return UniqueFd(descriptor);
}

UniqueFd openUninterrupted(const std::string& path, int flags) {
    return openFollowing(path, flags | O_NOFOLLOW);
}

// A descriptor that was opened without a right to the content has its mode changed by its name in
// /proc only.
bool changeMode(const UniqueFd& item, mode_t mode) {
    return chmod(("/proc/self/fd/" + std::to_string(item.get())).c_str(), mode) == 0;
}

Result<void> writeAll(const UniqueFd& file, std::span<const std::uint8_t> bytes,
                      const std::string& path) {
    while (!bytes.empty()) {
        const ssize_t n = write(file.get(), bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return Error::posix(n < 0 ? errno : EIO, "write", path);
        bytes = bytes.subspan(static_cast<std::size_t>(n));
    }
    return {};
}

}  // namespace

Result<void> giveAttributes(const FileAttributes& attributes, const std::string& path) {
    const uid_t owner = attributes.ownerAccountId.value_or(static_cast<uid_t>(-1));
    gid_t group = attributes.groupOwnerAccountId.value_or(static_cast<gid_t>(-1));
    if (!attributes.groupOwnerAccountId && attributes.groupOwnerAccountName)
        group = groupId(*attributes.groupOwnerAccountName).value_or(static_cast<gid_t>(-1));
    const bool hasOwner = owner != static_cast<uid_t>(-1) || group != static_cast<gid_t>(-1);
    const auto& mode = attributes.posixPermissions;
    if (!hasOwner && !mode) return {};

    const UniqueFd item = openUninterrupted(path, O_PATH);
    if (!item) return Error::posix(errno, "open", path);
    struct stat found {};
    if (fstat(item.get(), &found) != 0) return Error::posix(errno, "stat", path);
    if (S_ISLNK(found.st_mode)) return Error::posix(ELOOP, "open", path);
    const bool isModeFirst = mode && (*mode & S_IWUSR) != 0;
    if (isModeFirst && !changeMode(item, *mode)) return Error::posix(errno, "chmod", path);
    if (hasOwner && fchownat(item.get(), "", owner, group, AT_EMPTY_PATH) != 0)
        return Error::posix(errno, "chown", path);
    if (mode && !isModeFirst && !changeMode(item, *mode)) return Error::posix(errno, "chmod", path);
    return {};
}

Result<ItemStatus> statusOf(const std::string& path) {
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0) return Error::posix(errno, "stat", path);
    ItemStatus status;
    if (S_ISREG(found.st_mode)) status.type = ItemStatus::Type::RegularFile;
    if (S_ISDIR(found.st_mode)) status.type = ItemStatus::Type::Directory;
    if (S_ISLNK(found.st_mode)) status.type = ItemStatus::Type::SymbolicLink;
    status.size = static_cast<std::uint64_t>(found.st_size);
    status.ownerAccountId = found.st_uid;
    status.groupOwnerAccountId = found.st_gid;
    status.posixPermissions = found.st_mode & 07777;
    return status;
}

Result<void> renameWithoutReplacement(const std::string& path, const std::string& newPath) {
    if (renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, newPath.c_str(), RENAME_NOREPLACE) == 0)
        return {};
    // Not every file system can do that in one step.
    if (errno == EINVAL || errno == ENOSYS) {
        struct stat found {};
        if (lstat(newPath.c_str(), &found) == 0) return Error::posix(EEXIST, "rename", newPath);
        if (rename(path.c_str(), newPath.c_str()) == 0) return {};
    }
    return Error::posix(errno, "rename", errno == EEXIST ? newPath : path);
}

namespace {

// Puts the bytes in the place of what is in the file.
Result<void> overwrite(UniqueFd& file, std::span<const std::uint8_t> bytes,
                       const std::string& path) {
    struct stat found {};
    if (fstat(file.get(), &found) != 0) return Error::posix(errno, "stat", path);
    if (!S_ISREG(found.st_mode)) return Error::posix(EACCES, "write", path);
    if (ftruncate(file.get(), 0) != 0) return Error::posix(errno, "truncate", path);
    return writeAll(file, bytes, path);
}

// Some file systems know only when a file is closed that there is no room for it.
Result<void> closeWritten(UniqueFd file, const std::string& path) {
    if (close(file.release()) != 0 && errno != EINTR) return Error::posix(errno, "close", path);
    return {};
}

// A pipe that nobody reads, or a socket, is no file to write to.
Error openError(const std::string& path) {
    return Error::posix(errno == ENXIO ? EACCES : errno, "open", path);
}

constexpr int kWriting = O_WRONLY | O_NONBLOCK | O_NOCTTY;

// Removes a file that this process made, unless another one has its name by now. A link that leads
// to it stays.
void removeMade(const std::optional<struct stat>& made, const std::string& path) {
    struct stat found {};
    const bool isSame = !made || (stat(path.c_str(), &found) == 0 && found.st_dev == made->st_dev &&
                                  found.st_ino == made->st_ino);
    if (!isSame) return;
    const std::unique_ptr<char, void (*)(void*)> real(realpath(path.c_str(), nullptr), std::free);
    if (real) unlink(real.get());
}

}  // namespace

Result<void> overwriteFile(const std::string& path, std::span<const std::uint8_t> bytes) {
    UniqueFd file = openUninterrupted(path, kWriting | O_CREAT);
    if (!file) return openError(path);
    if (auto written = overwrite(file, bytes, path); !written) return written;
    return closeWritten(std::move(file), path);
}

// A link that leads nowhere is there for O_EXCL, but the file is not.
Result<void> saveFile(const std::string& path, std::span<const std::uint8_t> bytes) {
    UniqueFd file = openFollowing(path, kWriting | O_CREAT | O_EXCL);
    bool isNew = static_cast<bool>(file);
    if (!file && errno == EEXIST) {
        file = openFollowing(path, kWriting);
        if (!file && errno == ENOENT) {
            file = openFollowing(path, kWriting | O_CREAT);
            isNew = static_cast<bool>(file);
        }
    }
    if (!file) return openError(path);
    std::optional<struct stat> made(std::in_place);
    if (fstat(file.get(), &*made) != 0) made.reset();
    auto written = overwrite(file, bytes, path);
    auto closed = closeWritten(std::move(file), path);
    if (written) written = std::move(closed);
    if (!written && isNew) removeMade(made, path);
    return written;
}

std::optional<gid_t> groupId(const std::string& name) {
    std::vector<char> buffer(1024);
    for (;;) {
        group entry{};
        group* found = nullptr;
        const int error = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
        if (error == ERANGE && buffer.size() < (1u << 20)) {
            buffer.resize(2 * buffer.size());
        } else if (error != EINTR) {
            return found ? std::optional<gid_t>(entry.gr_gid) : std::nullopt;
        }
    }
}

bool isMember(uid_t user, gid_t group) {
    std::vector<char> buffer(16'384);
    passwd account{};
    passwd* found = nullptr;
    if (getpwuid_r(user, &account, buffer.data(), buffer.size(), &found) != 0 || !found)
        return false;
    std::vector<gid_t> groups(64);
    int count = static_cast<int>(groups.size());
    if (getgrouplist(account.pw_name, account.pw_gid, groups.data(), &count) < 0) {
        groups.resize(static_cast<std::size_t>(count));
        if (getgrouplist(account.pw_name, account.pw_gid, groups.data(), &count) < 0) return false;
    }
    groups.resize(static_cast<std::size_t>(count));
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

}  // namespace utilia::platform
