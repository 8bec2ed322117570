#include "Common/Platform/Linux/PortRegistration.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

// The flock on NAME.lock is the registration; the socket is only how the owner is reached. Every
// change of NAME in the folder is made under the lock, so what lies there when the lock was free
// was left by an owner that died and is replaced without a question. Lock files are never removed:
// unlinking one that another process is about to lock would let two processes hold two files of one
// name.
//
// The socket is bound under a short name, made to listen, and then renamed to NAME. So NAME never
// refuses a connection because listen() has not been called yet, the left-over of a dead owner is
// replaced in one step, a symbolic link in its place is replaced and not followed, and a name of
// 200 bytes does not meet the limit of socket addresses. The short name is made of the name's hash
// and therefore always the same: left-overs do not pile up.

namespace utilia::platform {
namespace {

constexpr int kBacklog = 128;
constexpr int kProbeAttempts = 1000;

std::string temporaryNameFor(std::string_view name) {
    unsigned long long hash = 14695981039346656037u;  // FNV-1a
    for (const char character : name)
        hash = (hash ^ static_cast<unsigned char>(character)) * 1099511628211u;
    char text[32];
    std::snprintf(text, sizeof text, ".%016llx.new", hash);
    return text;
}

// Takes the exclusive lock without waiting. A process that lists the registrations holds a shared
// lock for some microseconds; that must not make a registration fail.
bool lockAgainstProbes(int file) {
    for (int attempt = 0; attempt < kProbeAttempts; ++attempt) {
        if (flock(file, LOCK_EX | LOCK_NB) == 0) return true;
        if (errno == EINTR) continue;
        if (errno != EWOULDBLOCK) return false;
        if (flock(file, LOCK_SH | LOCK_NB) != 0) return false;
        flock(file, LOCK_UN);
        sched_yield();
    }
    errno = EWOULDBLOCK;
    return false;
}

Result<UniqueFd> takeLock(const PortFolder& folder, std::string_view name) {
    const std::string file = PortFolder::lockName(name);
    const std::string path = folder.pathOf(file);
    UniqueFd lock(openat(folder.descriptor(), file.c_str(),
                         O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600));
    if (!lock) return Error::posix(errno, "open", path);
    if (!lockAgainstProbes(lock.get())) {
        if (errno == EWOULDBLOCK)
            return Error::utilia(UtiliaErrorCode::Busy, path + ": a living process holds it");
        return Error::posix(errno, "flock", path);
    }
    // A second link would put the owner's number into somebody's file; no link, and the next owner
    // locks another file.
    struct stat found {};
    if (fstat(lock.get(), &found) != 0) return Error::posix(errno, "fstat", path);
    if (!S_ISREG(found.st_mode) || found.st_uid != geteuid() || found.st_nlink != 1) {
        return Error::utilia(UtiliaErrorCode::Refused, path + ": is not a lock file of this user");
    }
    return lock;
}

// Only for people and for lists: whether the name is held is told by the lock and never by this
// number.
Result<void> writeHolder(int lock, const std::string& path) {
    const std::string text = std::to_string(getpid()) + "\n";
    const ssize_t written = pwrite(lock, text.data(), text.size(), 0);
    if (written < 0) return Error::posix(errno, "write", path);
    if (ftruncate(lock, static_cast<off_t>(text.size())) != 0)
        return Error::posix(errno, "ftruncate", path);
    return {};
}

}  // namespace

PortRegistration::PortRegistration(std::string name, PortFolder folder, ForkGuardedFd lock)
    : name_(std::move(name)), folder_(std::move(folder)), lock_(std::move(lock)) {}

Result<PortRegistration> PortRegistration::claim(std::string_view name) {
    if (!PortFolder::isUsableName(name)) {
        return Error::utilia(UtiliaErrorCode::Refused,
                             "\"" + std::string(name) + "\" is no name for a port");
    }
    auto folder = PortFolder::open();
    if (!folder) return std::move(folder).error();
    auto lock = takeLock(*folder, name);
    if (!lock) return std::move(lock).error();
    if (auto written = writeHolder(lock->get(), folder->pathOf(PortFolder::lockName(name)));
        !written) {
        return written.error();
    }
    PortRegistration claimed(std::string(name), std::move(folder).value(),
                             ForkGuardedFd(std::move(lock).value()));
    if (auto published = claimed.publish(); !published) return published.error();
    return claimed;
}

Result<void> PortRegistration::publish() {
    const int directory = folder_->descriptor();
    const std::string temporary = temporaryNameFor(name_);
    UniqueFd listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener) return Error::posix(errno, "socket", name_);
    // The mode of the socket's own inode is what bind() gives the file.
    if (fchmod(listener.get(), 0600) != 0) return Error::posix(errno, "fchmod", name_);
    if (unlinkat(directory, temporary.c_str(), 0) != 0 && errno != ENOENT) {
        return Error::posix(errno, "unlink", folder_->pathOf(temporary));
    }
    const sockaddr_un address = folder_->addressOf(temporary);
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return Error::posix(errno, "bind", folder_->pathOf(temporary));
    }
    const auto undo = [&](Error error) {
        unlinkat(directory, temporary.c_str(), 0);
        return error;
    };
    struct stat bound {};
    if (listen(listener.get(), kBacklog) != 0) return undo(Error::posix(errno, "listen", name_));
    if (fstatat(directory, temporary.c_str(), &bound, AT_SYMLINK_NOFOLLOW) != 0) {
        return undo(Error::posix(errno, "stat", folder_->pathOf(temporary)));
    }
    if (renameat(directory, temporary.c_str(), directory, name_.c_str()) != 0) {
        return undo(Error::posix(errno, "rename", folder_->pathOf(name_)));
    }
    device_ = bound.st_dev;
    inode_ = bound.st_ino;
    listener_ = ForkGuardedFd(std::move(listener));
    return {};
}

void PortRegistration::release() {
    if (!lock_) return;
    if (listener_ && lock_.isOfThisProcess()) {
        // Whatever else came into the socket's place is not ours to remove.
        struct stat found {};
        const int directory = folder_->descriptor();
        if (fstatat(directory, name_.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
            found.st_dev == device_ && found.st_ino == inode_) {
            unlinkat(directory, name_.c_str(), 0);
        }
    }
    listener_.reset();
    lock_.reset();
    folder_.reset();
}

PortLockState readPortLock(const PortFolder& folder, const std::string& lockName) {
    const UniqueFd lock(openat(folder.descriptor(), lockName.c_str(),
                               O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    struct stat found {};
    if (!lock || fstat(lock.get(), &found) != 0 || !S_ISREG(found.st_mode)) return {};
    if (flock(lock.get(), LOCK_SH | LOCK_NB) == 0 || errno != EWOULDBLOCK) return {};
    PortLockState state;
    state.isHeld = true;
    char text[24];
    const ssize_t length = pread(lock.get(), text, sizeof text, 0);
    pid_t holder = 0;
    if (length > 0 && std::from_chars(text, text + length, holder).ec == std::errc() &&
        holder > 0) {
        state.holder = holder;
    }
    return state;
}

}  // namespace utilia::platform
