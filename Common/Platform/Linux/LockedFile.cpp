#include "Common/Platform/LockedFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "Common/Platform/Linux/ForkGuard.h"
#include "Common/Platform/Linux/OutOfMemory.h"
#include "Common/Platform/Linux/SlowLockWatch.h"
#include "Common/Platform/Linux/TemporaryFiles.h"

// Linux cannot lock a file in the step that opens it. For a file that exists this costs nothing:
// who was overtaken between open and flock finds out by isAtPath(). A new file is different, since
// between its creation and its lock another process could already write into it. So it is made
// without a name, locked, filled, and gets its name last. Where there are no files without a name,
// it has a temporary one until then.
//
// As with every lock here, a forked child does not keep it. No child can be forked between the open
// and the descriptor's entry in the guard, nor between the close and its removal; so the close alone
// gives the lock up. A child that is spawned rather than forked has a copy until it is another
// program, and delays whoever waits for as long; and no process is forked while an open hangs.
//
// An object may live on in a forked child, where its descriptor is closed and the number may be
// another file's; the generation tells.
//
// The object does not keep the file's path, which would cost every record of a log an allocation:
// for a message the kernel is asked.

namespace utilia::platform {
namespace {

constexpr int kOpenFlags = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr std::size_t kMostPieces = 64;
constexpr int kNameAttempts = 100;

int openUninterrupted(const char* path, int flags, mode_t mode = 0) {
    int descriptor;
    do {
        descriptor = open(path, flags, mode);
    } while (descriptor < 0 && errno == EINTR);
    return descriptor;
}

int lockUninterrupted(int descriptor, int operation) {
    int result;
    do {
        result = flock(descriptor, operation);
    } while (result != 0 && errno == EINTR);
    return result;
}

std::string procPath(int descriptor) { return "/proc/self/fd/" + std::to_string(descriptor); }

std::string nameOf(int descriptor) {
    std::array<char, 4096> name{};
    const ssize_t length = readlink(procPath(descriptor).c_str(), name.data(), name.size());
    return length > 0 ? std::string(name.data(), static_cast<std::size_t>(length))
                      : "descriptor " + std::to_string(descriptor);
}

Error failed(const char* call, int descriptor, int error = errno) {
    return Error::posix(error, call, nameOf(descriptor));
}

int operationFor(LockedFile::Lock lock) {
    return lock == LockedFile::Lock::Shared ? LOCK_SH : LOCK_EX;
}

// 0, or -1 with errno set.
int waitForLock(int descriptor, int operation) {
    if (lockUninterrupted(descriptor, operation | LOCK_NB) == 0) return 0;
    if (errno != EWOULDBLOCK) return -1;
    const SlowLockWatch watch(descriptor, nameOf(descriptor));
    return lockUninterrupted(descriptor, operation);
}

// Why this is no plain file of this user; 0 when it is one.
int refusal(const struct stat& found) {
    if (S_ISDIR(found.st_mode)) return EISDIR;
    if (!S_ISREG(found.st_mode)) return EACCES;
    return found.st_uid == geteuid() ? 0 : EPERM;
}

LockedFile::Status statusOf(const struct stat& found) {
    return {static_cast<std::uint64_t>(found.st_size),
            found.st_dev,
            found.st_ino,
            found.st_nlink,
            found.st_uid,
            (found.st_mode & S_IWUSR) != 0};
}

// Whole, in one step.
Result<void> writeContent(int descriptor, std::span<const std::string_view> content,
                          const std::string& path) {
    if (content.empty()) return {};
    if (content.size() > kMostPieces) return Error::posix(EINVAL, "write", path);
    std::array<iovec, kMostPieces> pieces{};
    std::size_t size = 0;
    for (std::size_t i = 0; i < content.size(); ++i) {
        pieces[i] = {const_cast<char*>(content[i].data()), content[i].size()};
        size += content[i].size();
    }
    ssize_t written;
    do {
        written = writev(descriptor, pieces.data(), static_cast<int>(content.size()));
    } while (written < 0 && errno == EINTR);
    if (written < 0) return Error::posix(errno, "write", path);
    if (static_cast<std::size_t>(written) != size) return Error::posix(ENOSPC, "write", path);
    return {};
}

// Gives a file without name its name. False where that is not possible here, and another way is.
Result<bool> linkUnnamed(int descriptor, const std::string& path) {
    if (linkat(AT_FDCWD, procPath(descriptor).c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) ==
        0)
        return true;
    if (errno == EEXIST) return Error::posix(EEXIST, "link", path);
    return false;
}

}  // namespace

LockedFile::LockedFile(int guarded) : file_(guarded), generation_(ForkGuard::generation()) {}

Result<LockedFile> LockedFile::open(const std::string& path, Access access, Lock lock) {
    return orOutOfMemory("open", path, [&]() -> Result<LockedFile> {
        const int mode = access == Access::Read ? O_RDONLY : O_WRONLY | O_APPEND;
        LockedFile opened(ForkGuard::open(path.c_str(), mode | kOpenFlags));
        if (!opened.file_) return Error::posix(errno, "open", path);
        if (waitForLock(opened.file_.get(), operationFor(lock)) != 0)
            return Error::posix(errno, "flock", path);
        return opened;
    });
}

Result<LockedFile> LockedFile::openOrCreate(const std::string& path, std::uint32_t mode) {
    return orOutOfMemory("open", path, [&]() -> Result<LockedFile> {
        LockedFile opened(ForkGuard::open(path.c_str(), O_RDWR | O_CREAT | kOpenFlags, mode));
        if (!opened.file_) return Error::posix(errno, "open", path);
        if (waitForLock(opened.file_.get(), LOCK_EX) != 0)
            return Error::posix(errno, "flock", path);
        if (auto plain = opened.status(); !plain) return std::move(plain).error();
        return opened;
    });
}

Result<LockedFile> LockedFile::create(const std::string& path, std::uint32_t mode,
                                      std::span<const std::string_view> content) {
    return orOutOfMemory("create", path, [&]() -> Result<LockedFile> {
        auto made = createUnnamed(path, mode, content);
        if (!made) return std::move(made).error();
        if (*made) return **std::move(made);
        return createNamed(path, mode, content);
    });
}

// None where there are no files without a name.
Result<std::optional<LockedFile>>
LockedFile::createUnnamed(const std::string& path, std::uint32_t mode,
                          std::span<const std::string_view> content) {
    LockedFile made(
        ForkGuard::open(folderOf(path).c_str(), O_TMPFILE | O_WRONLY | O_APPEND | O_CLOEXEC, mode));
    if (!made.file_) {
        if (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL) return {std::nullopt};
        return Error::posix(errno, "create", path);
    }
    if (auto filled = made.lockAndFill(content, path); !filled) return std::move(filled).error();
    const auto linked = linkUnnamed(made.file_.get(), path);
    if (!linked) return linked.error();
    if (!*linked) return {std::nullopt};
    return {std::move(made)};
}

Result<LockedFile> LockedFile::createNamed(const std::string& path, std::uint32_t mode,
                                           std::span<const std::string_view> content) {
    removeLeftOvers(folderOf(path));
    std::string temporary;
    int descriptor = -1;
    for (int attempt = 0; descriptor < 0 && attempt < kNameAttempts; ++attempt) {
        temporary = temporaryName(path);
        descriptor =
            ForkGuard::open(temporary.c_str(),
                            O_CREAT | O_EXCL | O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC, mode);
        if (descriptor < 0 && errno != EEXIST) break;
    }
    LockedFile made(descriptor);
    if (!made.file_) return Error::posix(errno, "create", path);
    auto done = made.lockAndFill(content, path);
    if (done) done = renameUnlessTaken(temporary, path);
    if (done) return made;
    unlink(temporary.c_str());
    return std::move(done).error();
}

// Of a file that nobody else knows yet.
Result<void> LockedFile::lockAndFill(std::span<const std::string_view> content,
                                     const std::string& path) {
    if (lockUninterrupted(file_.get(), LOCK_EX | LOCK_NB) != 0)
        return Error::posix(errno, "flock", path);
    return writeContent(file_.get(), content, path);
}

LockedFile& LockedFile::operator=(LockedFile&& other) noexcept {
    if (this != &other) {
        release();
        file_ = std::move(other.file_);
        reader_ = std::move(other.reader_);
        generation_ = other.generation_;
        isExamined_ = other.isExamined_;
        isKept_ = other.isKept_;
    }
    return *this;
}

LockedFile::~LockedFile() { release(); }

void LockedFile::release() {
    reader_.reset();
    if (!file_) return;
    if (!isOfThisProcess()) {
        file_.release();
    } else if (isKept_ && !isStillKept()) {
        ForkGuard::forgetMarked(file_.release());
    } else {
        ForkGuard::close(file_.release());
    }
}

UniqueFd LockedFile::takeDescriptor() {
    if (file_) ForkGuard::forget(file_.get());
    return std::move(file_);
}

Result<LockedFile::Status> LockedFile::status() {
    struct stat found {};
    if (fstat(file_.get(), &found) != 0) return failed("stat", file_.get());
    if (!isExamined_) {
        if (const int error = refusal(found)) return failed("examine", file_.get(), error);
        isExamined_ = true;
    }
    return statusOf(found);
}

Result<void> LockedFile::keep() {
    if (!ForkGuard::mark(file_.get())) return failed("mark", file_.get());
    isKept_ = true;
    return {};
}

bool LockedFile::isStillKept() const { return ForkGuard::isMarked(file_.get()); }

Result<bool> LockedFile::isAtPath(const std::string& path) const {
    struct stat here {};
    struct stat there {};
    if (fstat(file_.get(), &here) != 0) return failed("stat", file_.get());
    if (lstat(path.c_str(), &there) != 0) {
        if (errno == ENOENT) return false;
        return Error::posix(errno, "stat", path);
    }
    return here.st_dev == there.st_dev && here.st_ino == there.st_ino;
}

Result<void> LockedFile::lock(Lock lock) {
    if (waitForLock(file_.get(), operationFor(lock)) != 0) return failed("flock", file_.get());
    return {};
}

Result<bool> LockedFile::tryLock(Lock lock) {
    if (lockUninterrupted(file_.get(), operationFor(lock) | LOCK_NB) == 0) return true;
    if (errno == EWOULDBLOCK) return false;
    return failed("flock", file_.get());
}

Result<void> LockedFile::unlock() {
    if (lockUninterrupted(file_.get(), LOCK_UN) != 0) return failed("flock", file_.get());
    return {};
}

bool LockedFile::isOfThisProcess() const { return generation_ == ForkGuard::generation(); }

Result<void> LockedFile::append(std::string_view bytes) {
    ssize_t written;
    do {
        written = ::write(file_.get(), bytes.data(), bytes.size());
    } while (written < 0 && errno == EINTR);
    if (written < 0) return failed("write", file_.get());
    if (static_cast<std::size_t>(written) != bytes.size())
        return failed("write", file_.get(), ENOSPC);
    return {};
}

Result<int> LockedFile::readable() {
    const int flags = fcntl(file_.get(), F_GETFL);
    if (flags < 0) return failed("fcntl", file_.get());
    if ((flags & O_ACCMODE) != O_WRONLY) return file_.get();
    if (!reader_)
        reader_.reset(openUninterrupted(procPath(file_.get()).c_str(), O_RDONLY | O_CLOEXEC));
    if (!reader_) return failed("open", file_.get());
    return reader_.get();
}

Result<std::size_t> LockedFile::read(std::span<char> buffer) {
    const auto descriptor = readable();
    if (!descriptor) return descriptor.error();
    ssize_t length;
    do {
        length = ::read(*descriptor, buffer.data(), buffer.size());
    } while (length < 0 && errno == EINTR);
    if (length < 0) return failed("read", file_.get());
    return static_cast<std::size_t>(length);
}

Result<void> LockedFile::rewind() {
    const auto descriptor = readable();
    if (!descriptor) return descriptor.error();
    if (lseek(*descriptor, 0, SEEK_SET) < 0) return failed("seek", file_.get());
    return {};
}

Result<void> LockedFile::overwrite(std::uint64_t offset, std::string_view bytes) {
    // With O_APPEND, Linux would write at the end whatever the offset.
    const int flags = fcntl(file_.get(), F_GETFL);
    if (flags < 0 || fcntl(file_.get(), F_SETFL, flags & ~O_APPEND) != 0)
        return failed("fcntl", file_.get());
    Result<void> result;
    while (!bytes.empty()) {
        const ssize_t written =
            pwrite(file_.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) {
            result = failed("write", file_.get(), written < 0 ? errno : EIO);
            break;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
        offset += static_cast<std::uint64_t>(written);
    }
    if (fcntl(file_.get(), F_SETFL, flags) != 0) return failed("fcntl", file_.get());
    return result;
}

Result<void> LockedFile::makeReadOnly() {
    struct stat found {};
    if (fstat(file_.get(), &found) != 0) return failed("stat", file_.get());
    if (fchmod(file_.get(), found.st_mode & 0444) != 0) return failed("chmod", file_.get());
    return {};
}

Result<void> LockedFile::synchronize() {
    int result;
    do {
        result = fsync(file_.get());
    } while (result != 0 && errno == EINTR);
    if (result != 0) return failed("fsync", file_.get());
    return {};
}

Result<LockedFile> LockedFile::createNameless(std::string_view content) {
    return orOutOfMemory("create", "a file in memory", [&]() -> Result<LockedFile> {
        UniqueFd file(memfd_create("utilia", MFD_CLOEXEC));
        if (!file) return Error::posix(errno, "create", "a file in memory");
        while (!content.empty()) {
            const ssize_t written = ::write(file.get(), content.data(), content.size());
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) return failed("write", file.get(), written < 0 ? errno : EIO);
            content.remove_prefix(static_cast<std::size_t>(written));
        }
        if (fchmod(file.get(), 0444) != 0) return failed("chmod", file.get());
        LockedFile opened(ForkGuard::open(procPath(file.get()).c_str(), O_RDONLY | O_CLOEXEC));
        if (!opened.file_) return failed("open", file.get());
        if (waitForLock(opened.file_.get(), LOCK_EX) != 0) return failed("flock", file.get());
        return opened;
    });
}

Result<void> LockedFile::rename(const std::string& path, const std::string& newPath) {
    if (::rename(path.c_str(), newPath.c_str()) != 0) return Error::posix(errno, "rename", path);
    return {};
}

Result<void> LockedFile::renameUnlessTaken(const std::string& path, const std::string& newPath) {
    if (renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, newPath.c_str(), RENAME_NOREPLACE) == 0)
        return {};
    // Not every file system can do that in one step.
    if ((errno == EINVAL || errno == ENOSYS) && link(path.c_str(), newPath.c_str()) == 0) {
        if (unlink(path.c_str()) == 0 || errno == ENOENT) return {};
        const int error = errno;
        unlink(newPath.c_str());
        return Error::posix(error, "unlink", path);
    }
    return Error::posix(errno, "rename", path);
}

Result<void> LockedFile::removeName(const std::string& path) {
    if (unlink(path.c_str()) != 0) return Error::posix(errno, "unlink", path);
    return {};
}

}  // namespace utilia::platform
