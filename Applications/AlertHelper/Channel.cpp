#include "Applications/AlertHelper/Channel.h"

#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace utilia::alert {
namespace {

constexpr qsizetype kQuestionLimit = 256 * 1024;

}  // namespace

Channel::Channel() { fcntl(kDescriptor, F_SETFD, FD_CLOEXEC); }

QByteArray Channel::receiveQuestion() {
    QByteArray packet(kQuestionLimit, '\0');
    ssize_t size;
    do {
        size = recv(kDescriptor, packet.data(), static_cast<std::size_t>(packet.size()), MSG_TRUNC);
    } while (size < 0 && errno == EINTR);
    if (size < 0 || size > packet.size()) return {};
    packet.resize(size);
    return packet;
}

void Channel::answerButton(qsizetype index) { answer("button " + QByteArray::number(index)); }

void Channel::answerNoDisplay(const QString& why) {
    answer("no-display " + why.left(500).toUtf8());
}

// Nothing of the toolkit is taken down: the tool waits, and the display server cleans up behind every program.
void Channel::answer(const QByteArray& packet) {
    ssize_t sent;
    do {
        sent =
            send(kDescriptor, packet.data(), static_cast<std::size_t>(packet.size()), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    _exit(sent == packet.size() ? EXIT_SUCCESS : EXIT_FAILURE);
}

}  // namespace utilia::alert
