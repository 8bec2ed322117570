#include "Tests/Support/JournalSocket.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace utilia::test {
namespace {

// The field MESSAGE, read as the journal reads an entry.
std::string messageOf(std::string_view entry) {
    std::string message;
    while (!entry.empty()) {
        const std::size_t nameEnd = entry.find_first_of("=\n");
        if (nameEnd == entry.npos) throw std::runtime_error("a field without a text");
        const std::string_view name = entry.substr(0, nameEnd);
        const bool hasLength = entry[nameEnd] == '\n';
        entry.remove_prefix(nameEnd + 1);
        std::uint64_t size = entry.find('\n');
        if (hasLength) {
            if (entry.size() < sizeof size) throw std::runtime_error("a field without a length");
            std::memcpy(&size, entry.data(), sizeof size);
            entry.remove_prefix(sizeof size);
        }
        if (size >= entry.size() || entry[size] != '\n')
            throw std::runtime_error("a field without an end");
        if (name == "MESSAGE") message = entry.substr(0, size);
        entry.remove_prefix(size + 1);
    }
    return message;
}

}  // namespace

JournalSocket::JournalSocket(const std::string& path)
    : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path.c_str());
    if (bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("bind " + path);
}

JournalSocket::Entry JournalSocket::receive() const {
    Entry entry;
    entry.bytes.resize(1 << 20);
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    iovec content{entry.bytes.data(), entry.bytes.size()};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t count = recvmsg(socket_.get(), &message, MSG_CMSG_CLOEXEC);
    entry.bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    if (const cmsghdr* const header = count < 0 ? nullptr : CMSG_FIRSTHDR(&message)) {
        int descriptor = -1;
        std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
        entry.file.reset(descriptor);
    }
    return entry;
}

void JournalSocket::drain() const {
    while (!receive().bytes.empty()) {
    }
}

std::vector<std::string> JournalSocket::receiveLines() const {
    std::vector<std::string> lines;
    for (Entry entry = receive(); entry.file || !entry.bytes.empty(); entry = receive()) {
        lines.push_back(messageOf(entry.file ? readWhole(entry.file.get()) : entry.bytes));
    }
    return lines;
}

std::string readWhole(int descriptor) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) throw std::runtime_error("fstat");
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    if (pread(descriptor, text.data(), text.size(), 0) != status.st_size)
        throw std::runtime_error("pread");
    return text;
}

}  // namespace utilia::test
