#include "Common/Platform/Linux/AlertWindow.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <optional>
#include <string>

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include "Common/Platform/Bundle.h"
#include "Common/Platform/Linux/ChildLauncher.h"
#include "Common/Platform/UniqueFd.h"

// The window belongs to a program of its own: the question comes before main, when the host has no
// toolkit yet, and no tool should have to load one for a window that hardly any user ever sees.
//
// Question and answer are one packet each on a socket. It is also how either side learns of the
// other's end, however that comes: our end is close-on-exec and in no other process, so that the
// helper reads the end of the socket when we die, and closes the window. The other way round the
// helper's own handle is watched as well, because what the helper has started may keep its end
// of the socket open for longer than the helper lives.
//
// There is no time-out, as the user may think for as long as he likes. Once there is an answer the
// helper ends by itself; one that does not is killed after a second, and the answer stands.

namespace utilia::platform {
namespace {

constexpr std::string_view kHelper = "utilia-alert";
constexpr std::size_t kAnswerLimit = 4096;
constexpr int kEndTimeout = 1000;  // milliseconds

bool isSet(const char* name) {
    const char* const value = std::getenv(name);
    return value && value[0];
}

// Only from our own bundle: a program of that name elsewhere is not asked for.
std::optional<std::string> helperPath() {
    const Bundle* const framework = Bundle::frameworkBundle();
    const auto resources =
        framework ? framework->pathForResource("UtiliaCommon", "bundle") : std::nullopt;
    const auto bundle = resources ? Bundle::bundleWithPath(*resources) : nullptr;
    return bundle ? bundle->pathForAuxiliaryExecutable(kHelper) : std::nullopt;
}

// Waits until the child has ended, and reaps it.
siginfo_t waitForEnd(const Child& child) {
    siginfo_t info{};
    while (waitid(P_PID, static_cast<id_t>(child.process), &info, WEXITED) != 0 && errno == EINTR) {
    }
    return info;
}

// As poll(2), but a signal does not end the wait.
int pollThrough(pollfd* sources, nfds_t count, int timeout) {
    int ready;
    do {
        ready = poll(sources, count, timeout);
    } while (ready < 0 && errno == EINTR);
    return ready;
}

// How it ended; one that does not end by itself is ended.
siginfo_t endAndReap(const Child& child) {
    pollfd end{child.handle.get(), POLLIN, 0};
    if (!child.handle || pollThrough(&end, 1, kEndTimeout) <= 0) kill(child.process, SIGKILL);
    return waitForEnd(child);
}

Error endedWithoutAnswer(const siginfo_t& info) {
    const std::string how = info.si_code == CLD_EXITED ? "with status " : "by signal ";
    return Error::utilia(UtiliaErrorCode::NotFound, std::string(kHelper) +
                                                        " ended without an answer, " + how +
                                                        std::to_string(info.si_status));
}

Result<void> sendWhole(int socket, const std::string& packet) {
    ssize_t sent;
    do {
        sent = send(socket, packet.data(), packet.size(), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    // Who is gone already is found out where the answer is waited for.
    if (sent < 0 && errno != EPIPE && errno != ECONNRESET) {
        return Error::posix(errno, "send", "the question to utilia-alert");
    }
    return {};
}

// The answer's packet; empty when the helper ended, or closed its side, without one.
Result<std::string> receiveAnswer(int socket, const Child& child) {
    std::array<pollfd, 2> sources{{{socket, POLLIN, 0}, {child.handle.get(), POLLIN, 0}}};
    const nfds_t count = child.handle ? 2 : 1;
    if (pollThrough(sources.data(), count, -1) < 0) {
        return Error::posix(errno, "poll", "the answer of utilia-alert");
    }
    // What it said before it ended still counts, also when it has not read the question: then the
    // end of its side is an error that comes first.
    std::string packet(kAnswerLimit, '\0');
    ssize_t size;
    do {
        size = recv(socket, packet.data(), packet.size(), MSG_DONTWAIT);
    } while (size < 0 && (errno == EINTR || errno == ECONNRESET));
    packet.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return packet;
}

}  // namespace

Result<std::size_t> askInAlertWindow(const AlertQuestion& question) {
    if (!isSet("WAYLAND_DISPLAY") && !isSet("DISPLAY")) {
        return Error::utilia(UtiliaErrorCode::Unavailable, "there is no display");
    }
    const auto program = helperPath();
    if (!program) {
        return Error::utilia(UtiliaErrorCode::NotFound,
                             std::string(kHelper) +
                                 " is missing from the framework's resource bundle");
    }
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return Error::posix(errno, "socketpair", kHelper);
    }
    const UniqueFd ours(ends[0]);
    UniqueFd theirs(ends[1]);
    const auto child = launchHelper(*program, theirs.get());
    theirs.reset();
    if (!child) return child.error();

    const auto sent = sendWhole(ours.get(), encodeAlertQuestion(question));
    const auto packet = sent ? receiveAnswer(ours.get(), *child) : sent.error();
    if (!packet) kill(child->process, SIGKILL);
    const siginfo_t end = endAndReap(*child);
    if (!packet) return packet.error();
    if (packet->empty()) return endedWithoutAnswer(end);
    return decodeAlertAnswer(*packet, question.buttons.size());
}

}  // namespace utilia::platform
