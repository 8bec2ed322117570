#include "Common/Platform/Linux/AlertWindow.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include "Common/Platform/Bundle.h"
#include "Common/Platform/Linux/ChildLauncher.h"
#include "Common/Platform/Linux/ForkGuardedFd.h"
#include "Common/Platform/UniqueFd.h"

// The window belongs to a program of its own: the question comes before main, when the host has no
// toolkit yet, and no tool should have to load one for a window that hardly any user ever sees.
//
// Question and answer are one packet each on a socket. It is also how either side learns of the
// other's end, however that comes: our end is in no other process, so that the helper reads the end
// of the socket when we die, and closes the window. The other way round the helper's own handle is
// watched as well, because what the helper has started may keep its end of the socket open for
// longer than the helper lives.
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

// A system call, again for as long as signals interrupt it.
template <class Call>
auto uninterrupted(Call call) {
    decltype(call()) result;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}

// The program that asks. It is reaped at the end of this object's life, whatever happens before.
class Helper final {
public:
    Helper(Child child, ForkGuardedFd socket)
        : child_(std::move(child)), socket_(std::move(socket)) {}
    ~Helper() { end(); }
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    // The answer's packet is a part of `buffer`; empty when the helper ended, or closed its side,
    // without one.
    Result<std::string_view> ask(const std::string& question, std::span<char> buffer) {
        const int socket = socket_.get();
        const ssize_t sent = uninterrupted(
            [&] { return send(socket, question.data(), question.size(), MSG_NOSIGNAL); });
        const bool isGone = sent < 0 && (errno == EPIPE || errno == ECONNRESET);
        if (sent < 0 && !isGone) return Error::posix(errno, "send the question to", kHelper);

        std::array<pollfd, 2> sources{{{socket, POLLIN, 0}, {child_.handle.get(), POLLIN, 0}}};
        const nfds_t count = child_.handle ? 2 : 1;
        if (!isGone && uninterrupted([&] { return poll(sources.data(), count, -1); }) < 0) {
            return Error::posix(errno, "wait for the answer of", kHelper);
        }
        const auto receive = [&] {
            return recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
        };
        ssize_t size = uninterrupted(receive);
        // One that has not read the question ends with an error first; what it said comes second.
        if (size < 0 && errno == ECONNRESET) size = uninterrupted(receive);
        return std::string_view(buffer.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    }

    // Waits until it has ended, and reaps it; one that does not end by itself is ended. Answers how
    // it ended.
    siginfo_t end() {
        if (isReaped_) return info_;
        isReaped_ = true;
        socket_.reset();
        pollfd ended{child_.handle.get(), POLLIN, 0};
        if (!child_.handle || uninterrupted([&] { return poll(&ended, 1, kEndTimeout); }) <= 0) {
            kill(child_.process, SIGKILL);
        }
        uninterrupted(
            [&] { return waitid(P_PID, static_cast<id_t>(child_.process), &info_, WEXITED); });
        return info_;
    }

private:
    Child child_;
    ForkGuardedFd socket_;
    siginfo_t info_{};
    bool isReaped_ = false;
};

Error endedWithoutAnswer(const siginfo_t& info) {
    std::string text = std::string(kHelper) + " ended without an answer";
    // A host that ignores SIGCHLD has the kernel reap its children, and nobody learns how they ended.
    if (info.si_pid != 0) {
        text += info.si_code == CLD_EXITED ? ", with status " : ", by signal ";
        text += std::to_string(info.si_status);
    }
    return Error::utilia(UtiliaErrorCode::NotFound, std::move(text));
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
    UniqueFd ours(ends[0]);
    UniqueFd theirs(ends[1]);
    ForkGuardedFd guarded(std::move(ours));
    const std::string packet = encodeAlertQuestion(question);
    auto child = launchHelper(*program, theirs.get());
    theirs.reset();
    if (!child) return std::move(child).error();

    Helper helper(*std::move(child), std::move(guarded));
    std::array<char, kAnswerLimit> buffer;
    const auto answer = helper.ask(packet, buffer);
    const siginfo_t end = helper.end();
    if (!answer) return answer.error();
    if (answer->empty()) return endedWithoutAnswer(end);
    return decodeAlertAnswer(*answer, question.buttons.size());
}

}  // namespace utilia::platform
