#include "Common/Platform/Linux/PortSender.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "Common/Logging/Log.h"
#include "Common/Platform/Linux/PortFolder.h"
#include "Common/Platform/Linux/RunLoopImplementation.h"

// A message that finds room is one system call. Only when the kernel says that there is none does
// anything else happen, and everything that then waits (for the backlog, for room, for descriptors
// in flight to be taken out) ends at the same deadline.
//
// Waiting for room: the socket becomes writable for poll() when three quarters of its buffer are
// free, so at the deadline the packet is tried once more before the time-out is told.
//
// Waiting for the backlog: there is nothing to poll for, but connect() on a blocking socket waits
// as long as SO_SNDTIMEO says. Packets are sent with MSG_DONTWAIT, so that the socket's own mode
// matters to connect() alone.

namespace utilia::platform {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

constexpr std::chrono::seconds kKeepMemory(2);
constexpr nanoseconds kLongestWait = std::chrono::hours(24 * 365);

nanoseconds timeLeft(steady_clock::time_point deadline) {
    const auto now = steady_clock::now();
    if (deadline <= now) return nanoseconds(0);
    // A deadline in the far future must not overflow what it is subtracted from.
    if (deadline > now + kLongestWait) return kLongestWait;
    return deadline - now;
}

timespec toTimespec(nanoseconds time) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    timespec result{};
    result.tv_sec = seconds.count();
    result.tv_nsec = (time - seconds).count();
    return result;
}

// Until the socket may have room or is hung up, or the time is over.
void waitForRoom(int socket, nanoseconds left) {
    pollfd waiting{socket, POLLOUT, 0};
    const timespec time = toTimespec(left);
    ppoll(&waiting, 1, &time, nullptr);
}

// What no descriptor can tell: a receiver that leaves descriptors in flight, a kernel short of
// memory.
void pause(nanoseconds& length, nanoseconds left) {
    const timespec time = toTimespec(std::min(length, left));
    clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr);
    length = std::min<nanoseconds>(2 * length, milliseconds(10));
}

// Up to here copying a message into one piece costs less than having the kernel gather it.
constexpr std::size_t kLargestCopy = 4096;

// A short message in one piece.
struct Packed {
    std::array<std::uint8_t, kPortPacketMaximumHead + kLargestCopy> bytes;
    std::size_t size = 0;

    void add(const std::uint8_t* from, std::size_t count) {
        if (count == 0) return;
        std::memcpy(bytes.data() + size, from, count);
        size += count;
    }
};

// The components as one list for the kernel, the head first.
struct Gather {
    std::array<iovec, 1 + kPortMessageMaximumComponents> parts;
    std::size_t count = 0;

    void add(const std::uint8_t* bytes, std::size_t size) {
        if (size > 0) parts[count++] = {const_cast<std::uint8_t*>(bytes), size};
    }
};

// The word of a thread's flags that stands in the kernel's description of it, after its name in brackets.
bool isExiting(const char* description) {
    constexpr unsigned kExiting = 4;  // PF_EXITING
    unsigned flags = 0;
    const char* const rest = std::strrchr(description, ')');
    return rest && std::sscanf(rest, ") %*c %*d %*d %*d %*d %*d %u", &flags) == 1 &&
           (flags & kExiting) != 0;
}

// Whether all threads of a process are on their way out. The kernel closes its files one after the other: a connection may have
// ended while the port still takes new ones, and what is sent there is lost.
bool isEnding(pid_t process) {
    struct CloseFolder {
        void operator()(DIR* folder) const { closedir(folder); }
    };
    std::array<char, 300> name{};
    std::snprintf(name.data(), name.size(), "/proc/%d/task", process);
    const std::unique_ptr<DIR, CloseFolder> threads(opendir(name.data()));
    bool isAnyExiting = false;
    while (const dirent* const thread = threads ? readdir(threads.get()) : nullptr) {
        if (thread->d_name[0] == '.') continue;
        std::snprintf(name.data(), name.size(), "%s/stat", thread->d_name);
        const UniqueFd file(openat(dirfd(threads.get()), name.data(), O_RDONLY | O_CLOEXEC));
        std::array<char, 512> description{};
        if (!file || read(file.get(), description.data(), description.size() - 1) <= 0) continue;
        if (!isExiting(description.data())) return false;
        isAnyExiting = true;
    }
    return isAnyExiting;
}

// One piece without a descriptor needs no list: the kernel has less to read and to check.
ssize_t sendNow(int socket, const msghdr& packet) {
    constexpr int kFlags = MSG_DONTWAIT | MSG_NOSIGNAL;
    if (packet.msg_iovlen == 1 && !packet.msg_control)
        return ::send(socket, packet.msg_iov->iov_base, packet.msg_iov->iov_len, kFlags);
    return sendmsg(socket, &packet, kFlags);
}

// The one descriptor that a packet can carry.
struct DescriptorControl {
    alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(sizeof(int))> bytes{};

    void attach(msghdr& packet, int descriptor) {
        packet.msg_control = bytes.data();
        packet.msg_controllen = bytes.size();
        cmsghdr* header = CMSG_FIRSTHDR(&packet);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof descriptor);
        std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    }
};

}  // namespace

PortSender::PortSender(std::string name)
    : name_(std::move(name)), loop_(RunLoop::currentRunLoop()),
      watches_(loop_.implementation().watches) {}

Result<std::unique_ptr<PortSender>> PortSender::open(std::string_view name) {
    if (!PortFolder::isUsableName(name)) {
        return Error::utilia(UtiliaErrorCode::NotFound,
                             "\"" + std::string(name) + "\" is no name for a port");
    }
    auto folder = PortFolder::open();
    if (!folder) return std::move(folder).error();
    std::unique_ptr<PortSender> sender(new PortSender(std::string(name)));
    const std::string path = folder->pathOf(name);
    sender->place_ = UniqueFd(
        openat(folder->descriptor(), sender->name_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!sender->place_) {
        if (errno == ENOENT) return Error::utilia(UtiliaErrorCode::NotFound, path);
        return Error::posix(errno, "open", path);
    }
    struct stat found {};
    if (fstat(sender->place_.get(), &found) != 0) return Error::posix(errno, "fstat", path);
    if (!S_ISSOCK(found.st_mode) || found.st_uid != geteuid()) {
        return Error::utilia(UtiliaErrorCode::Refused, path + ": is not a socket of this user");
    }
    if (auto connected = sender->connectNow(); !connected) return connected.error();
    return sender;
}

Result<void> PortSender::connectNow() {
    UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) return Error::posix(errno, "socket", name_);
    socket_ = ForkGuardedFd(std::move(socket));
    const sockaddr_un address = addressOfDescriptor(place_.get());
    int result = 0;
    do {
        result =
            connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    if (result == 0) return finishConnecting();
    if (errno == EAGAIN) return {};
    if (errno == ECONNREFUSED || errno == ENOENT)
        return Error::utilia(UtiliaErrorCode::NotFound, name_);
    return Error::posix(errno, "connect", name_);
}

Result<void> PortSender::finishConnecting() {
    place_.reset();
    pid_t listener = 0;  // also where it is in another namespace
    if (!isPeerOfThisUser(socket_.get(), &listener)) {
        return Error::utilia(UtiliaErrorCode::Refused, name_ + ": another user listens there");
    }
    if (listener > 0 && isEnding(listener)) return Error::utilia(UtiliaErrorCode::NotFound, name_);
    PortPacketHead hello;
    encodePortHello(hello);
    ssize_t sent = 0;
    do {
        sent = ::send(socket_.get(), hello.bytes.data(), hello.size, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        if (errno == EPIPE || errno == ECONNRESET)
            return Error::utilia(UtiliaErrorCode::NotFound, name_);
        return Error::posix(errno, "send", name_);
    }
    const auto watches = watches_.lock();
    if (!watches) return Error::posix(ESHUTDOWN, "watch", name_);
    auto watch = watches->add(socket_.get(), EPOLLRDHUP, *this);
    if (!watch) return std::move(watch).error();
    watch_ = *watch;
    return {};
}

PortSender::Outcome PortSender::connectBefore(Deadline deadline) {
    const sockaddr_un address = addressOfDescriptor(place_.get());
    const int flags = fcntl(socket_.get(), F_GETFL);
    if (flags < 0 || fcntl(socket_.get(), F_SETFL, flags & ~O_NONBLOCK) != 0)
        return Outcome::TimedOut;
    for (;;) {
        // Zero would wait for ever, and so would a limit that could not be set.
        const auto wait = toTimespec(std::max<nanoseconds>(timeLeft(deadline), milliseconds(1)));
        const timeval limit{wait.tv_sec, wait.tv_nsec / 1000};
        if (setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0)
            return Outcome::TimedOut;
        if (connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
            0)
            break;
        if (errno == EAGAIN) return Outcome::TimedOut;
        if (errno != EINTR) return Outcome::Dead;
        if (timeLeft(deadline) == nanoseconds(0)) return Outcome::TimedOut;
    }
    const auto finished = finishConnecting();
    if (finished) return Outcome::Sent;
    if (!finished.error().is(UtiliaErrorCode::NotFound))
        KULogVariadic("Port %@: %@", name_, finished.error());
    return Outcome::Dead;
}

bool PortSender::belongsToCurrentThread() const { return watches_.lock() == currentLoopWatches(); }

bool PortSender::isHungUp() const {
    if (!socket_) return true;
    if (place_) return false;
    pollfd asked{socket_.get(), POLLRDHUP, 0};
    return poll(&asked, 1, 0) > 0;
}

PortSender::Room PortSender::room() {
    if (!socket_) return Room::Dead;
    if (place_) {
        const auto connected = connectNow();
        if (!connected)
            return place_ && !connected.error().is(UtiliaErrorCode::NotFound) ? Room::None
                                                                              : Room::Dead;
        if (place_) return Room::None;
    }
    pollfd asked{socket_.get(), POLLOUT | POLLRDHUP, 0};
    if (poll(&asked, 1, 0) <= 0) return Room::None;
    if (asked.revents & ~POLLOUT) return Room::Dead;
    return Room::Some;
}

PortSender::Outcome PortSender::send(std::uint32_t msgid,
                                     std::span<const PortMessage::Component> components,
                                     Deadline deadline) {
    if (!socket_) return Outcome::Dead;
    if (place_) {
        if (const Outcome connected = connectBefore(deadline); connected != Outcome::Sent)
            return connected;
    }
    std::size_t size = 0;
    for (const auto& component : components) size += component.size();
    const bool isInline = size <= kPortPacketMaximumInline;

    PortPacketHead head;
    encodePortMessage(isInline ? PortPacketKind::Inline : PortPacketKind::Memory, msgid, components,
                      head);
    msghdr packet{};
    if (size <= kLargestCopy) {
        Packed packed;
        packed.add(head.bytes.data(), head.size);
        for (const auto& component : components) packed.add(component.data(), component.size());
        iovec whole{packed.bytes.data(), packed.size};
        packet.msg_iov = &whole;
        packet.msg_iovlen = 1;
        return sendPacket(packet, deadline);
    }
    Gather gather;
    gather.add(head.bytes.data(), head.size);
    packet.msg_iov = gather.parts.data();
    if (isInline) {
        for (const auto& component : components) gather.add(component.data(), component.size());
        packet.msg_iovlen = gather.count;
        return sendPacket(packet, deadline);
    }
    packet.msg_iovlen = gather.count;
    const auto memory = memory_.write(components);
    if (!memory) {
        // The exception that the caller gets has one fixed reason; the cause is said here.
        KULogVariadic("Port %@: a message of %lu bytes cannot be sent: %@", name_, size,
                      memory.error());
        return Outcome::TimedOut;
    }
    lastLargeMessage_ = steady_clock::now();
    forgetMemoryLater();
    DescriptorControl control;
    control.attach(packet, memory->get());
    return sendPacket(packet, deadline);
}

// A tool that changes its icon once must not keep a mebibyte for it until it ends.
void PortSender::forgetMemoryLater() {
    if (memoryTimer_ || !memory_.keepsFile() || !belongsToCurrentThread()) return;
    memoryTimer_ = Timer::scheduledTimer(kKeepMemory, false, [this] {
        memoryTimer_.reset();
        if (steady_clock::now() - lastLargeMessage_ < kKeepMemory) {
            forgetMemoryLater();
        } else {
            memory_.forget();
        }
    });
}

PortSender::Outcome PortSender::sendPacket(const msghdr& packet, Deadline deadline) {
    nanoseconds pauseLength = milliseconds(1);
    for (bool isLastAttempt = false;;) {
        if (sendNow(socket_.get(), packet) >= 0) return Outcome::Sent;
        const int error = errno;
        if (error == EINTR) continue;
        const bool isFull = error == EAGAIN;
        const bool isShort = error == ETOOMANYREFS || error == ENOBUFS || error == ENOMEM;
        if (!isFull && !isShort) return Outcome::Dead;
        if (isLastAttempt) return Outcome::TimedOut;
        const nanoseconds left = timeLeft(deadline);
        if (left == nanoseconds(0)) return Outcome::TimedOut;
        if (isFull) {
            waitForRoom(socket_.get(), left);
        } else {
            pause(pauseLength, left);
        }
        isLastAttempt = timeLeft(deadline) == nanoseconds(0);
    }
}

void PortSender::close() {
    if (const auto watches = watches_.lock(); watches && watch_ != 0) watches->remove(watch_);
    watch_ = 0;
    memoryTimer_.reset();
    memory_.forget();
    socket_.reset();
    place_.reset();
}

void PortSender::descriptorIsReady(std::uint32_t) {
    if (const auto port = port_.lock()) port->invalidate();
}

}  // namespace utilia::platform
