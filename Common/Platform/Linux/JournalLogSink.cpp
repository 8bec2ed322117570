#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "Common/Logging/LogEscape.h"
#include "Common/Platform/Linux/LogLineLimit.h"
#include "Common/Platform/Linux/LogSinks.h"
#include "Common/Platform/UniqueFd.h"

// The journal's native protocol: one datagram is one entry, a list of fields. "NAME=text" and a
// line break is a field whose text has no line break; otherwise the name, a line break, the length
// in 64 little-endian bits, the text and a line break. Text can therefore never add a field or an
// entry.
//
// The socket is not connected and every datagram names its receiver, so that a restarted journal is
// found again. A datagram is sent without waiting: while nobody reads, the receiver's queue fills
// up and lines are refused. An entry that is longer than a datagram may be travels as a sealed
// memory file whose descriptor is all that the datagram holds; the journal reads such a file
// instead of the datagram's text.

namespace utilia::platform {
namespace {

// Far below what the journal takes from unprivileged senders, far above any line that is meant for
// people.
constexpr std::size_t kLineLimit = std::size_t{1024} * 1024;

void appendField(std::string& entry, std::string_view name, std::string_view text) {
    entry.append(name);
    if (text.find('\n') == std::string_view::npos) {
        entry.append("=");
    } else {
        entry.append("\n");
        for (unsigned shift = 0; shift < 64; shift += 8) {
            entry.push_back(
                static_cast<char>(static_cast<std::uint64_t>(text.size()) >> shift & 0xFF));
        }
    }
    entry.append(text).append("\n");
}

// A memory file that holds the entry and can never change again; empty where it cannot be made.
UniqueFd sealedFile(const std::string& entry) {
    UniqueFd file(memfd_create("log-entry", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!file) return {};
    std::size_t written = 0;
    while (written < entry.size()) {
        const ssize_t count = write(file.get(), entry.data() + written, entry.size() - written);
        if (count <= 0) return {};
        written += static_cast<std::size_t>(count);
    }
    if (fcntl(file.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL) !=
        0)
        return {};
    return file;
}

class JournalLogSink final : public LogSink {
public:
    JournalLogSink(UniqueFd socket, const sockaddr_un& address, const std::string& processName)
        : socket_(std::move(socket)), address_(address) {
        appendField(fields_, "PRIORITY", "6");
        appendField(fields_, "SYSLOG_IDENTIFIER", escapedLogLine(processName));
    }

    bool write(std::string_view line) noexcept override {
        const int keptErrno = errno;
        bool taken = false;
        try {
            taken = send(line);
        } catch (...) {
            taken = false;
        }
        errno = keptErrno;
        return taken;
    }

private:
    bool send(std::string_view line) {
        std::string text(line);
        limitLogLine(text, kLineLimit);
        std::string entry = fields_;
        appendField(entry, "MESSAGE", text);

        iovec content{entry.data(), entry.size()};
        msghdr message{};
        message.msg_name = &address_;
        message.msg_namelen = sizeof address_;
        message.msg_iov = &content;
        message.msg_iovlen = 1;
        if (sendWithoutWaiting(message)) return true;
        // EMSGSIZE: longer than the socket's buffer; ENOBUFS: no memory in one piece.
        return (errno == EMSGSIZE || errno == ENOBUFS) && sendAsFile(entry);
    }

    bool sendAsFile(const std::string& entry) {
        const UniqueFd file = sealedFile(entry);
        if (!file) return false;
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
        msghdr message{};
        message.msg_name = &address_;
        message.msg_namelen = sizeof address_;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        const int descriptor = file.get();
        std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
        return sendWithoutWaiting(message);
    }

    bool sendWithoutWaiting(const msghdr& message) {
        return sendmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
    }

    UniqueFd socket_;
    sockaddr_un address_;
    std::string fields_;  // those that stand in every entry
};

}  // namespace

std::shared_ptr<LogSink> makeJournalLogSink(const std::string& socketPath,
                                            const std::string& processName) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof address.sun_path) return nullptr;
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);

    // Connecting a datagram socket asks whether somebody has bound the path, and never waits.
    const UniqueFd probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!probe ||
        connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return nullptr;
    }
    UniqueFd sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sender) return nullptr;
    return std::make_shared<JournalLogSink>(std::move(sender), address, processName);
}

}  // namespace utilia::platform
