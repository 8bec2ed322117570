#include "Tests/Support/PrivateNetwork.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace utilia::test {
namespace {

int statusOf(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

[[noreturn]] void fail(int error) {
    throw std::runtime_error("this test needs a network namespace of its own, which takes root "
                             "(CAP_SYS_ADMIN): " +
                             std::string(std::strerror(error)));
}

}  // namespace

// A child makes the namespace and ends as soon as this process holds it.
PrivateNetwork::PrivateNetwork() {
    int made[2];
    int held[2];
    if (pipe2(made, O_CLOEXEC) != 0 || pipe2(held, O_CLOEXEC) != 0) fail(errno);
    const pid_t child = fork();
    if (child < 0) fail(errno);
    if (child == 0) {
        close(held[1]);
        if (unshare(CLONE_NEWNET) != 0) _exit(errno);
        char ignored = 0;
        if (write(made[1], &ignored, 1) != 1) _exit(errno);
        _exit(read(held[0], &ignored, 1) == 0 ? 0 : errno);
    }
    close(made[1]);
    close(held[0]);
    char ignored = 0;
    if (read(made[0], &ignored, 1) == 1) {
        const std::string path = "/proc/" + std::to_string(child) + "/ns/net";
        namespace_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    const int error = errno;
    close(made[0]);
    close(held[1]);
    if (const int status = statusOf(child); status != 0) fail(status);
    if (namespace_ < 0) fail(error);
}

PrivateNetwork::~PrivateNetwork() { close(namespace_); }

void PrivateNetwork::run(const std::string& commands) const {
    const pid_t child = fork();
    if (child < 0) fail(errno);
    if (child == 0) {
        if (!enter()) _exit(126);
        execl("/bin/sh", "sh", "-e", "-c", commands.c_str(), nullptr);
        _exit(127);
    }
    if (const int status = statusOf(child); status != 0)
        throw std::runtime_error(commands + ": exit status " + std::to_string(status));
}

bool PrivateNetwork::enter() const { return setns(namespace_, CLONE_NEWNET) == 0; }

}  // namespace utilia::test
