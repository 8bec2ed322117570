#include "Common/Platform/Linux/PortMemory.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <new>
#include <utility>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

// What a large message costs is not copying it but the pages: the kernel takes, clears and gives
// back 256 of them for each mebibyte of a new memory file, and maps them for the receiver. That is
// five to ten times the time of two copies. So the sender writes into the same file again, and the
// receiver reads it into the same buffer again.
//
// A sender may write again only when nobody reads any more, and has to know it without an answer,
// also when the receiver dies or hangs up with the message unread. The kernel knows: each message
// carries an open file description of its own, with an flock on it. While a descriptor of that
// description exists anywhere (in the receiver, or in a packet that nobody has taken) the lock is
// held, and the last close ends it. A sender that does not get the lock uses another file.
//
// The receiver copies and never maps: what it then looks at cannot change under its eyes, whatever
// the sender does. The seals fix the size, so that the copy finds what was announced. The blocks are
// compared with the size because a file of holes costs its sender nothing and its reader every page
// of it.

#ifndef MFD_NOEXEC_SEAL
#define MFD_NOEXEC_SEAL 0x0008U
#endif

namespace utilia::platform {
namespace {

constexpr int kSizeSeals = F_SEAL_SHRINK | F_SEAL_GROW;
constexpr int kAllSeals = kSizeSeals | F_SEAL_SEAL;
// A larger buffer is not kept. Icons are below it.
constexpr std::size_t kKeptBuffer = 4 << 20;
constexpr const char* kName = "utilia message";

// A system may insist on memory that can never be run, which kernels before 6.3 do not know how to
// ask for.
UniqueFd createMemoryFile() {
    static std::atomic<bool> knowsNoExec = true;
    if (knowsNoExec) {
        UniqueFd file(memfd_create(kName, MFD_CLOEXEC | MFD_ALLOW_SEALING | MFD_NOEXEC_SEAL));
        if (file || errno != EINVAL) return file;
        knowsNoExec = false;
    }
    return UniqueFd(memfd_create(kName, MFD_CLOEXEC | MFD_ALLOW_SEALING));
}

Result<void> writeComponents(int file, std::span<const PortMessage::Component> components) {
    std::array<iovec, kPortMessageMaximumComponents> parts;
    std::size_t count = 0;
    for (const auto& component : components) {
        if (component.empty()) continue;
        parts[count++] = {const_cast<std::uint8_t*>(component.data()), component.size()};
    }
    off_t at = 0;
    for (std::size_t first = 0; first < count;) {
        const ssize_t written = pwritev(file, &parts[first], static_cast<int>(count - first), at);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return Error::posix(errno, "pwritev", kName);
        if (written == 0) return Error::posix(ENOSPC, "pwritev", kName);
        at += written;
        auto left = static_cast<std::size_t>(written);
        while (first < count && left >= parts[first].iov_len) left -= parts[first++].iov_len;
        if (first < count) {
            parts[first].iov_base = static_cast<std::uint8_t*>(parts[first].iov_base) + left;
            parts[first].iov_len -= left;
        }
    }
    return {};
}

bool readWhole(int file, std::span<std::uint8_t> bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
        const ssize_t n = pread(file, bytes.data() + at, bytes.size() - at, static_cast<off_t>(at));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        at += static_cast<std::size_t>(n);
    }
    return true;
}

// An open file description for one message, locked. Empty while that of another message is, and
// where the system lets nobody make one.
UniqueFd ownDescription(int file) {
    std::array<char, 32> path;
    std::snprintf(path.data(), path.size(), "/proc/self/fd/%d", file);
    UniqueFd owned(open(path.data(), O_RDONLY | O_CLOEXEC));
    if (owned && flock(owned.get(), LOCK_EX | LOCK_NB) != 0) owned.reset();
    return owned;
}

}  // namespace

Result<UniqueFd> PortMemoryWriter::write(std::span<const PortMessage::Component> components) {
    std::uint64_t payloadSize = 0;
    for (const auto& component : components) payloadSize += component.size();
    if (keptSize_ != portMemoryFileSize(payloadSize) || !kept_.isOfThisProcess())
        return writeAnew(components, payloadSize);
    UniqueFd owned = ownDescription(kept_.get());
    // The message before is still under way and keeps its file; this one's becomes the next kept.
    if (!owned) return writeAnew(components, payloadSize);
    if (auto written = writeAgain(components, payloadSize); !written) return written.error();
    return owned;
}

Result<UniqueFd> PortMemoryWriter::writeAnew(std::span<const PortMessage::Component> components,
                                             std::uint64_t payloadSize) {
    forget();
    const std::uint64_t fileSize = portMemoryFileSize(payloadSize);
    UniqueFd file = createMemoryFile();
    if (!file) return Error::posix(errno, "memfd_create", kName);
    if (ftruncate(file.get(), static_cast<off_t>(fileSize)) != 0)
        return Error::posix(errno, "ftruncate", kName);
    if (fcntl(file.get(), F_ADD_SEALS, kAllSeals) != 0)
        return Error::posix(errno, "F_ADD_SEALS", kName);
    if (auto written = writeComponents(file.get(), components); !written) return written.error();
    UniqueFd owned = ownDescription(file.get());
    // Without it nobody could tell when the file is free again: it is this message's for good.
    if (!owned) return file;
    kept_ = ForkGuardedFd(std::move(file));
    keptSize_ = fileSize;
    writtenSize_ = payloadSize;
    return owned;
}

// Through a mapping, which is made once: a write() looks up every page anew. Only where the file has
// its pages already, since a mapping has no way to say that there is no memory left.
Result<void> PortMemoryWriter::writeAgain(std::span<const PortMessage::Component> components,
                                          std::uint64_t payloadSize) {
    if (payloadSize <= writtenSize_ && !mapped_) {
        void* const mapped =
            mmap(nullptr, keptSize_, PROT_READ | PROT_WRITE, MAP_SHARED, kept_.get(), 0);
        if (mapped != MAP_FAILED) mapped_ = static_cast<std::uint8_t*>(mapped);
    }
    if (payloadSize > writtenSize_ || !mapped_) {
        auto written = writeComponents(kept_.get(), components);
        if (written) writtenSize_ = std::max(writtenSize_, payloadSize);
        return written;
    }
    std::uint8_t* at = mapped_;
    for (const auto& component : components) at = std::copy(component.begin(), component.end(), at);
    return {};
}

void PortMemoryWriter::forget() {
    if (mapped_) munmap(std::exchange(mapped_, nullptr), keptSize_);
    kept_.reset();
    keptSize_ = 0;
    writtenSize_ = 0;
}

std::optional<PortRefusal> PortMemoryBuffer::read(const UniqueFd& descriptor,
                                                  std::uint64_t payloadSize) {
    size_ = 0;
    // Only shared memory knows seals; huge pages could fail to appear when they are read.
    const int seals = fcntl(descriptor.get(), F_GET_SEALS);
    if (seals < 0 || (seals & kSizeSeals) != kSizeSeals) return PortRefusal::NotSealedMemory;
    struct statfs system {};
    if (fstatfs(descriptor.get(), &system) != 0 || system.f_type != TMPFS_MAGIC)
        return PortRefusal::NotSealedMemory;
    struct stat file {};
    if (fstat(descriptor.get(), &file) != 0 || !S_ISREG(file.st_mode))
        return PortRefusal::NotSealedMemory;
    if (payloadSize == 0 || payloadSize > kPortMessageMaximumSize || file.st_size < 0)
        return PortRefusal::WrongMemorySize;
    if (static_cast<std::uint64_t>(file.st_size) != portMemoryFileSize(payloadSize))
        return PortRefusal::WrongMemorySize;
    if (static_cast<std::uint64_t>(file.st_blocks) * 512 < payloadSize)
        return PortRefusal::WrongMemorySize;

    const auto length = static_cast<std::size_t>(payloadSize);
    if (length > capacity_) {
        bytes_.reset();
        capacity_ = 0;
        // Not cleared: every byte is read into.
        bytes_.reset(new (std::nothrow) std::uint8_t[length]);
        if (!bytes_) return PortRefusal::MemoryUnavailable;
        capacity_ = length;
    }
    if (!readWhole(descriptor.get(), {bytes_.get(), length})) return PortRefusal::MemoryUnavailable;
    size_ = length;
    return std::nullopt;
}

void PortMemoryBuffer::release() {
    size_ = 0;
    if (capacity_ <= kKeptBuffer) return;
    bytes_.reset();
    capacity_ = 0;
}

}  // namespace utilia::platform
