#include "Common/Platform/FileLock.h"

#include <algorithm>
#include <cerrno>
#include <string>

#include <fcntl.h>
#include <sys/file.h>
#include <time.h>

#include "Common/Platform/Linux/ForkGuard.h"
#include "Common/Platform/Linux/LockTurns.h"
#include "Common/Platform/Linux/OutOfMemory.h"
#include "Common/Platform/Linux/SlowLockWatch.h"

// flock belongs to the open file and ends with its last descriptor. So the descriptors are
// close-on-exec, and closed in a forked child; and a lock is released by LOCK_UN, which also
// reaches a copy that a child took between the open and its entry in the guard.
//
// A lock with a time-out polls: nothing else ends a wait for flock without a signal. Its steps stay shorter than the
// pause of a writer between two updates (LockTurns), or it would hardly ever find the lock free while one writes in a
// loop. A lock without a time-out waits in the kernel.

namespace utilia::platform {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kFirstStep = std::chrono::microseconds(10);
constexpr auto kLongestStep = std::chrono::microseconds(50);

int operationFor(FileLock::Mode mode) { return mode == FileLock::Mode::Shared ? LOCK_SH : LOCK_EX; }

int lockUninterrupted(int descriptor, int operation) {
    int result;
    do {
        result = flock(descriptor, operation);
    } while (result != 0 && errno == EINTR);
    return result;
}

// Holds a descriptor in the fork guard until it is handed to a lock.
class GuardedFile final {
public:
    explicit GuardedFile(UniqueFd file) : file_(std::move(file)) {
        ForkGuard::closeInChild(file_.get());
    }
    ~GuardedFile() {
        if (file_) ForkGuard::forget(file_.get());
    }
    GuardedFile(const GuardedFile&) = delete;
    GuardedFile& operator=(const GuardedFile&) = delete;

    int get() const { return file_.get(); }
    UniqueFd take() { return std::move(file_); }

private:
    UniqueFd file_;
};

void pauseFor(std::chrono::nanoseconds time) {
    const timespec pause{0, static_cast<long>(time.count())};
    nanosleep(&pause, nullptr);
}

int openUninterrupted(const char* path, int flags, mode_t mode) {
    int descriptor;
    do {
        descriptor = open(path, flags, mode);
    } while (descriptor < 0 && errno == EINTR);
    return descriptor;
}

Result<void> lockWithin(std::chrono::milliseconds timeout, int descriptor, int operation,
                        const std::string& path) {
    const auto deadline = Clock::now() + timeout;
    std::chrono::nanoseconds step = kFirstStep;
    while (lockUninterrupted(descriptor, operation | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) return Error::posix(errno, "flock", path);
        const std::chrono::nanoseconds left = deadline - Clock::now();
        if (left <= left.zero()) {
            return Error::utilia(UtiliaErrorCode::Busy,
                                 "flock " + path + ": still held by " + lockHolder(descriptor) +
                                     " after " + std::to_string(timeout.count()) + " ms");
        }
        pauseFor(std::min(step, left));
        step = std::min<std::chrono::nanoseconds>(2 * step, kLongestStep);
    }
    return {};
}

}  // namespace

Result<FileLock> FileLock::acquire(const std::filesystem::path& path, Mode mode,
                                   std::chrono::milliseconds timeout) {
    LockTurns::asked();
    return orOutOfMemory("flock", path.native(), [&]() -> Result<FileLock> {
        UniqueFd file(openUninterrupted(
            path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600));
        if (!file) return Error::posix(errno, "open", path.native());
        GuardedFile guarded(std::move(file));
        if (auto locked = lockWithin(timeout, guarded.get(), operationFor(mode), path.native());
            !locked)
            return std::move(locked).error();
        return FileLock(guarded.take());
    });
}

Result<FileLock> FileLock::acquireFolder(const std::filesystem::path& path, Mode mode,
                                         std::chrono::milliseconds timeout) {
    LockTurns::asked();
    return orOutOfMemory("flock", path.native(), [&]() -> Result<FileLock> {
        UniqueFd file(openUninterrupted(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0));
        if (!file) return Error::posix(errno, "open", path.native());
        GuardedFile guarded(std::move(file));
        if (auto locked = lockWithin(timeout, guarded.get(), operationFor(mode), path.native());
            !locked)
            return std::move(locked).error();
        return FileLock(guarded.take());
    });
}

Result<FileLock> FileLock::acquireFolder(const std::filesystem::path& path, Mode mode) {
    LockTurns::asked();
    return orOutOfMemory("flock", path.native(), [&]() -> Result<FileLock> {
        UniqueFd file(openUninterrupted(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0));
        if (!file) return Error::posix(errno, "open", path.native());
        GuardedFile guarded(std::move(file));
        int result = lockUninterrupted(guarded.get(), operationFor(mode) | LOCK_NB);
        if (result != 0 && errno == EWOULDBLOCK) {
            const SlowLockWatch watch(guarded.get(), path.native());
            result = lockUninterrupted(guarded.get(), operationFor(mode));
        }
        if (result != 0) return Error::posix(errno, "flock", path.native());
        return FileLock(guarded.take());
    });
}

FileLock::FileLock(UniqueFd file) : file_(std::move(file)) { LockTurns::taken(); }

FileLock& FileLock::operator=(FileLock&& other) noexcept {
    if (this != &other) {
        release();
        file_ = std::move(other.file_);
    }
    return *this;
}

FileLock::~FileLock() { release(); }

void FileLock::release() {
    if (!file_) return;
    if (ForkGuard::forget(file_.get())) {
        lockUninterrupted(file_.get(), LOCK_UN);
        file_.reset();
    } else {
        file_.release();
    }
    LockTurns::released();
}

bool FileLock::isHeld() const { return static_cast<bool>(file_); }

}  // namespace utilia::platform
