#include "Common/Platform/Linux/PortMemory.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

// A mapping of a file that somebody else can still shrink ends in SIGBUS, one that he can still
// write changes under the reader's eyes. The seals exclude both for good, and are asked for before
// anything is mapped. The blocks are compared with the size because a file of holes costs its
// sender nothing and its reader every page of it.
//
// Sealing against writing fails with EBUSY when a page of the file is pinned, for a moment as a
// rule, for ever where shared memory uses huge pages. A fresh copy helps in the first case; in the
// second the file goes without that seal and the receiver reads it into memory of its own, where
// nobody else can change it.

#ifndef MFD_NOEXEC_SEAL
#define MFD_NOEXEC_SEAL 0x0008U
#endif

namespace utilia::platform {
namespace {

constexpr int kSizeSeals = F_SEAL_SHRINK | F_SEAL_GROW;
constexpr int kAllSeals = kSizeSeals | F_SEAL_WRITE | F_SEAL_SEAL;
constexpr int kSealAttempts = 5;
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
    for (std::size_t first = 0; first < count;) {
        const ssize_t written = writev(file, &parts[first], static_cast<int>(count - first));
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return Error::posix(errno, "writev", kName);
        if (written == 0) return Error::posix(ENOSPC, "writev", kName);
        auto left = static_cast<std::size_t>(written);
        while (first < count && left >= parts[first].iov_len) left -= parts[first++].iov_len;
        if (first < count) {
            parts[first].iov_base = static_cast<std::uint8_t*>(parts[first].iov_base) + left;
            parts[first].iov_len -= left;
        }
    }
    return {};
}

bool readWhole(int file, std::vector<std::uint8_t>& bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
        const ssize_t n = pread(file, bytes.data() + at, bytes.size() - at, static_cast<off_t>(at));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        at += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

Result<UniqueFd> makePortMemory(std::span<const PortMessage::Component> components) {
    for (int attempt = 1;; ++attempt) {
        UniqueFd file = createMemoryFile();
        if (!file) return Error::posix(errno, "memfd_create", kName);
        if (auto written = writeComponents(file.get(), components); !written)
            return written.error();
        if (fcntl(file.get(), F_ADD_SEALS, kAllSeals) == 0) return file;
        const bool isLast = attempt == kSealAttempts;
        if (errno != EBUSY || isLast) {
            // The seals are set together or not at all, so these can still be added.
            if (fcntl(file.get(), F_ADD_SEALS, kSizeSeals) == 0) return file;
            return Error::posix(errno, "F_ADD_SEALS", kName);
        }
    }
}

std::variant<PortMemory, PortRefusal> PortMemory::open(const UniqueFd& descriptor,
                                                       std::uint64_t size) {
    // Only shared memory knows seals; huge pages could fail to appear when they are read.
    const int seals = fcntl(descriptor.get(), F_GET_SEALS);
    if (seals < 0 || (seals & kSizeSeals) != kSizeSeals) return PortRefusal::NotSealedMemory;
    struct statfs system {};
    if (fstatfs(descriptor.get(), &system) != 0 || system.f_type != TMPFS_MAGIC)
        return PortRefusal::NotSealedMemory;
    struct stat file {};
    if (fstat(descriptor.get(), &file) != 0 || !S_ISREG(file.st_mode))
        return PortRefusal::NotSealedMemory;
    if (size == 0 || size > kPortMessageMaximumSize || file.st_size < 0)
        return PortRefusal::WrongMemorySize;
    if (static_cast<std::uint64_t>(file.st_size) != size) return PortRefusal::WrongMemorySize;
    if (static_cast<std::uint64_t>(file.st_blocks) * 512 < size)
        return PortRefusal::WrongMemorySize;

    PortMemory memory;
    const auto length = static_cast<std::size_t>(size);
    if ((seals & F_SEAL_WRITE) == 0) {
        memory.copy_.resize(length);
        if (!readWhole(descriptor.get(), memory.copy_)) return PortRefusal::MemoryUnavailable;
        memory.bytes_ = memory.copy_;
        return memory;
    }
    void* mapped =
        mmap(nullptr, length, PROT_READ, MAP_PRIVATE | MAP_POPULATE, descriptor.get(), 0);
    if (mapped == MAP_FAILED) return PortRefusal::MemoryUnavailable;
    memory.bytes_ = {static_cast<const std::uint8_t*>(mapped), length};
    return memory;
}

PortMemory::PortMemory(PortMemory&& other) noexcept
    : bytes_(std::exchange(other.bytes_, {})), copy_(std::move(other.copy_)) {}

PortMemory::~PortMemory() {
    if (bytes_.empty() || !copy_.empty()) return;
    munmap(const_cast<std::uint8_t*>(bytes_.data()), bytes_.size());
}

}  // namespace utilia::platform
