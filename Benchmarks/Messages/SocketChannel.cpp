#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "Benchmarks/Messages/Channel.h"

namespace utilia::bench {
namespace {

// Enough for the largest message that is measured, with the kernel's own bookkeeping.
constexpr int kSendBuffer = 8 << 20;
constexpr std::size_t kLargestMessage = 2 << 20;

// The least that two processes can do to hand a message over: one system call each, and no loop.
class SocketReceiver final : public MessageReceiver {
public:
    explicit SocketReceiver(int socket) : socket_(socket) {}

    void run(const std::function<bool(Bytes)>& take, const std::function<bool()>&) override {
        for (;;) {
            const ssize_t size = recv(socket_, buffer_.data(), buffer_.size(), 0);
            if (size <= 0) fail("recv");
            if (!take({buffer_.data(), static_cast<std::size_t>(size)})) return;
        }
    }

private:
    int socket_;
    std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(kLargestMessage);
};

class SocketSender final : public MessageSender {
public:
    explicit SocketSender(int socket) : socket_(socket) {}
    void send(Bytes message) override {
        if (::send(socket_, message.data(), message.size(), MSG_NOSIGNAL) < 0) fail("send");
    }

private:
    int socket_;
};

class MemoryReceiver final : public MessageReceiver {
public:
    explicit MemoryReceiver(int socket) : socket_(socket) {}

    void run(const std::function<bool(Bytes)>& take, const std::function<bool()>&) override {
        for (bool goesOn = true; goesOn;) {
            const int file = receiveDescriptor();
            struct stat status {};
            check(fstat(file, &status), "fstat");
            const auto size = static_cast<std::size_t>(status.st_size);
            void* mapped = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, file, 0);
            if (mapped == MAP_FAILED) fail("mmap");
            close(file);
            goesOn = take({static_cast<const std::uint8_t*>(mapped), size});
            munmap(mapped, size);
        }
    }

private:
    int receiveDescriptor() const {
        char byte = 0;
        iovec room{&byte, 1};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        msghdr packet{};
        packet.msg_iov = &room;
        packet.msg_iovlen = 1;
        packet.msg_control = control;
        packet.msg_controllen = sizeof control;
        check(recvmsg(socket_, &packet, MSG_CMSG_CLOEXEC), "recvmsg");
        int file = -1;
        if (const cmsghdr* header = CMSG_FIRSTHDR(&packet))
            std::memcpy(&file, CMSG_DATA(header), sizeof file);
        return check(file, "no descriptor");
    }

    int socket_;
};

class MemorySender final : public MessageSender {
public:
    explicit MemorySender(int socket) : socket_(socket) {}

    void send(Bytes message) override {
        const int file =
            check(memfd_create("benchmark", MFD_CLOEXEC | MFD_ALLOW_SEALING), "memfd_create");
        if (write(file, message.data(), message.size()) != static_cast<ssize_t>(message.size()))
            fail("write");
        seal(file);
        char byte = 0;
        iovec content{&byte, 1};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr packet{};
        packet.msg_iov = &content;
        packet.msg_iovlen = 1;
        packet.msg_control = control;
        packet.msg_controllen = sizeof control;
        cmsghdr* header = CMSG_FIRSTHDR(&packet);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &file, sizeof file);
        check(sendmsg(socket_, &packet, MSG_NOSIGNAL), "sendmsg");
        close(file);
    }

private:
    // A file with content can be sealed only while the kernel itself looks at none of its pages.
    static void seal(int file) {
        constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;
        for (int attempt = 0; fcntl(file, F_ADD_SEALS, kSeals) != 0; ++attempt) {
            if (errno != EBUSY || attempt == 100) fail("F_ADD_SEALS");
            usleep(100);
        }
    }

    int socket_;
};

template <class Receiver, class Sender>
class SocketChannel final : public MessageChannel {
public:
    void prepare(const Settings&) override {
        for (const char* name : {"ping", "pong"}) {
            auto& ends = pairs_[name];
            check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), "socketpair");
            // A message beyond the default buffer needs a larger one, which only root may ask for
            // past the system's limit. Without it such a message fails, and the measurement says
            // so.
            if (setsockopt(ends[0], SOL_SOCKET, SO_SNDBUFFORCE, &kSendBuffer, sizeof kSendBuffer) !=
                0) {
                check(setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer),
                      "SO_SNDBUF");
            }
        }
    }
    std::unique_ptr<MessageReceiver> receiver(const std::string& name) override {
        return std::make_unique<Receiver>(pairs_.at(name)[1]);
    }
    std::unique_ptr<MessageSender> sender(const std::string& name) override {
        return std::make_unique<Sender>(pairs_.at(name)[0]);
    }

private:
    std::map<std::string, std::array<int, 2>> pairs_;
};

}  // namespace

std::unique_ptr<MessageChannel> makeSocketChannel() {
    return std::make_unique<SocketChannel<SocketReceiver, SocketSender>>();
}
std::unique_ptr<MessageChannel> makeMemoryChannel() {
    return std::make_unique<SocketChannel<MemoryReceiver, MemorySender>>();
}

}  // namespace utilia::bench
