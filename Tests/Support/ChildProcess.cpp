#include "Tests/Support/ChildProcess.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/PrivateNetwork.h"

namespace utilia::test {
namespace {

constexpr const char* kUnset = "\x01";

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

void redirect(const std::string& path, int descriptor) {
    if (path.empty()) return;
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (file < 0 || dup2(file, descriptor) < 0) _exit(126);
    close(file);
}

}  // namespace

std::string ownProgramPath() { return std::filesystem::read_symlink("/proc/self/exe").string(); }

ChildProcess ChildProcess::role(const std::string& name, std::vector<std::string> arguments,
                                Options options) {
    std::vector<std::string> all{kChildRoleSwitch, name};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const std::string path = options.program.empty() ? ownProgramPath() : options.program;
    return program(path, std::move(all), std::move(options));
}

ChildProcess ChildProcess::program(const std::string& path, std::vector<std::string> arguments,
                                   Options options) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) fail("socketpair");
    std::vector<std::string> environment;
    for (char** entry = environ; *entry; ++entry) {
        const std::string text = *entry;
        if (!options.environment.contains(text.substr(0, text.find('='))))
            environment.push_back(text);
    }
    for (const auto& [name, value] : options.environment) {
        if (value != kUnset) environment.push_back(name + "=" + value);
    }
    std::vector<char*> argv{const_cast<char*>(path.c_str())};
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (const std::string& entry : environment) envp.push_back(const_cast<char*>(entry.c_str()));
    envp.push_back(nullptr);

    const pid_t pid = fork();
    if (pid < 0) fail("fork");
    if (pid == 0) {
        if (ends[1] == kChildChannel) {
            fcntl(kChildChannel, F_SETFD, 0);
        } else if (dup2(ends[1], kChildChannel) < 0) {
            _exit(126);
        }
        if (options.ownSession) setsid();
        if (options.diesWithTest) prctl(PR_SET_PDEATHSIG, SIGKILL);
        redirect(options.standardOutput, STDOUT_FILENO);
        redirect(options.standardError, STDERR_FILENO);
        if (options.network && !options.network->enter()) _exit(123);
        if (options.mounts && !options.mounts->enter()) _exit(124);
        if (options.user != static_cast<uid_t>(-1) &&
            (setgroups(0, nullptr) != 0 || setgid(options.user) != 0 ||
             setuid(options.user) != 0)) {
            _exit(125);
        }
        execve(path.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    close(ends[1]);
    ChildProcess child;
    child.pid_ = pid;
    child.channel_ = ends[0];
    child.pidFd_ = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (child.pidFd_ < 0) fail("pidfd_open");
    return child;
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)), channel_(std::exchange(other.channel_, -1)),
      pidFd_(std::exchange(other.pidFd_, -1)), status_(std::move(other.status_)),
      buffer_(std::move(other.buffer_)) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
    std::swap(pid_, other.pid_);
    std::swap(channel_, other.channel_);
    std::swap(pidFd_, other.pidFd_);
    std::swap(status_, other.status_);
    std::swap(buffer_, other.buffer_);
    return *this;
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0) kill();
    if (channel_ >= 0) close(channel_);
    if (pidFd_ >= 0) close(pidFd_);
}

void ChildProcess::say(const std::string& line) {
    const std::string text = line + "\n";
    if (::send(channel_, text.data(), text.size(), MSG_NOSIGNAL) < 0 && errno != EPIPE &&
        errno != ECONNRESET)
        fail("send");
}

std::optional<std::string> ChildProcess::waitForLine(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (const auto end = buffer_.find('\n'); end != std::string::npos) {
            std::string line = buffer_.substr(0, end);
            buffer_.erase(0, end + 1);
            return line;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() < 0) return std::nullopt;
        pollfd waiting{channel_, POLLIN, 0};
        const int ready = poll(&waiting, 1, static_cast<int>(left.count()) + 1);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        char chunk[4096];
        const ssize_t n = read(channel_, chunk, sizeof chunk);
        if (n <= 0) return std::nullopt;
        buffer_.append(chunk, static_cast<std::size_t>(n));
    }
}

void ChildProcess::signal(int number) {
    if (!status_ && pid_ > 0) ::kill(pid_, number);
}

void ChildProcess::kill() {
    signal(SIGKILL);
    waitForExit(std::chrono::seconds(60));
}

std::optional<int> ChildProcess::waitForExit(std::chrono::milliseconds timeout) {
    if (status_ || pid_ <= 0) return status_;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd waiting{pidFd_, POLLIN, 0};
        const int ready = poll(&waiting, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        int raw = 0;
        if (waitpid(pid_, &raw, 0) != pid_) fail("waitpid");
        status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
        return status_;
    }
}

bool ChildProcess::isRunning() { return pid_ > 0 && !waitForExit(std::chrono::milliseconds(0)); }

}  // namespace utilia::test
