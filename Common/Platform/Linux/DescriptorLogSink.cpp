#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Logging/LogEscape.h"
#include "Common/Platform/Linux/LogLineLimit.h"
#include "Common/Platform/Linux/LogSinks.h"
#include "Common/Platform/UniqueFd.h"

// Writing to a stderr that others share, without ever waiting for whoever reads it.
//
// O_NONBLOCK cannot be set on the descriptor: the flag belongs to the open file, which the shell
// and every other process of the terminal or pipe share. So a pipe or terminal is opened once more
// through /proc for each line, which gives an open file of our own with our own flags; a host that
// puts another file in the descriptor's place is followed at once, and no end of a pipe is kept
// open. Sockets cannot be opened that way but have MSG_DONTWAIT. Regular files never make a writer
// wait for a reader.
//
// Where /proc is missing or refuses (a terminal that belongs to another user), the line is written
// when poll() says that there is room. Another process may take that room in between; only then,
// and only until the reader reads, such a write can wait.
//
// A line is at most PIPE_BUF bytes with everything, so that a pipe takes it whole or not at all and
// lines of several processes never mix. A terminal or a full disk may still take a part: the line
// counts as not taken, and the next one starts on a line of its own.

namespace utilia::platform {
namespace {

ssize_t writeUninterrupted(int descriptor, const std::string& text) {
    ssize_t count = 0;
    do {
        count = write(descriptor, text.data(), text.size());
    } while (count < 0 && errno == EINTR);
    return count;
}

// Keeps a write to a pipe without a reader from ending the process, whatever the host does with
// SIGPIPE.
ssize_t writeWithoutSignal(int descriptor, const std::string& text) {
    sigset_t brokenPipe;
    sigset_t before;
    sigset_t pending;
    sigemptyset(&brokenPipe);
    sigaddset(&brokenPipe, SIGPIPE);
    sigemptyset(&pending);
    pthread_sigmask(SIG_BLOCK, &brokenPipe, &before);
    sigpending(&pending);

    const ssize_t count = writeUninterrupted(descriptor, text);
    // Takes back the signal of this write, but not one that the host has been waiting for.
    if (count < 0 && errno == EPIPE && sigismember(&pending, SIGPIPE) == 0) {
        const timespec now{};
        while (sigtimedwait(&brokenPipe, nullptr, &now) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return count;
}

ssize_t writeToPipeOrTerminal(int descriptor, const std::string& text) {
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    const UniqueFd own(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (own) return writeWithoutSignal(own.get(), text);
    if (errno == ENXIO) return -1;  // a pipe that nobody reads
    pollfd room{descriptor, POLLOUT, 0};
    if (poll(&room, 1, 0) != 1 || room.revents != POLLOUT) return -1;
    return writeWithoutSignal(descriptor, text);
}

class DescriptorLogSink final : public LogSink {
public:
    DescriptorLogSink(int descriptor, const std::string& processName)
        : descriptor_(descriptor), processName_(escapedLogLine(processName)) {}

    bool write(std::string_view line) noexcept override {
        const int keptErrno = errno;
        bool taken = false;
        try {
            taken = put(line);
        } catch (...) {
            taken = false;
        }
        errno = keptErrno;
        return taken;
    }

private:
    bool put(std::string_view line) {
        std::string text = unfinished_ ? "\n" : "";
        // Asked for each line: the process may have forked.
        text.append(processName_).append("[").append(std::to_string(getpid())).append("]: ");
        text.append(escapedLogLine(line));
        limitLogLine(text, PIPE_BUF - 1);
        text.push_back('\n');

        const ssize_t count = writeWithoutWaiting(text);
        if (count <= 0) return false;
        unfinished_ = static_cast<std::size_t>(count) < text.size();
        return !unfinished_;
    }

    ssize_t writeWithoutWaiting(const std::string& text) const {
        struct stat status {};
        if (fstat(descriptor_, &status) != 0) return -1;
        if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode))
            return writeToPipeOrTerminal(descriptor_, text);
        if (S_ISSOCK(status.st_mode)) {
            return send(descriptor_, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        return writeUninterrupted(descriptor_, text);
    }

    const int descriptor_;
    const std::string processName_;
    bool unfinished_ = false;  // the last line stands there without its end
};

}  // namespace

std::shared_ptr<LogSink> makeDescriptorLogSink(int descriptor, const std::string& processName) {
    return std::make_shared<DescriptorLogSink>(descriptor, processName);
}

}  // namespace utilia::platform
