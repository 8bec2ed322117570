#include "Tests/Support/ChildRole.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <system_error>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "Tests/Support/ChildProcess.h"

namespace utilia::test {
namespace {

std::map<std::string, ChildRoleFunction>& roles() {
    static std::map<std::string, ChildRoleFunction> all;
    return all;
}

}  // namespace

ChildRoleRegistration::ChildRoleRegistration(const char* name, ChildRoleFunction function) {
    roles()[name] = function;
}

void ChildRole::say(const std::string& line) const {
    const std::string text = line + "\n";
    std::size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t n = send(kChildChannel, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        sent += static_cast<std::size_t>(n);
    }
}

std::string ChildRole::waitForLine() const {
    std::string line;
    for (char c = 0;;) {
        const ssize_t n = read(kChildChannel, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return {};
        if (c == '\n') return line;
        line += c;
    }
}

void outliveLauncher(std::chrono::seconds time) {
    prctl(PR_SET_PDEATHSIG, 0);
    // By a timer of the kernel: a thread or a descriptor more would be seen by what the role tests.
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGKILL;
    timer_t timer{};
    const itimerspec end{.it_interval = {}, .it_value = {.tv_sec = time.count(), .tv_nsec = 0}};
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0 ||
        timer_settime(timer, 0, &end, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(), "timer");
}

bool runChildRole(int argc, char** argv, int* status) {
    if (argc < 3 || std::strcmp(argv[1], kChildRoleSwitch) != 0) return false;
    // A child does not outlive the test that has started it, unless its role asks for that (outliveLauncher).
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const auto found = roles().find(argv[2]);
    if (found == roles().end()) {
        std::fprintf(stderr, "no child role %s\n", argv[2]);
        *status = 127;
        return true;
    }
    ChildRole self;
    self.arguments.assign(argv + 3, argv + argc);
    *status = found->second(self);
    return true;
}

}  // namespace utilia::test
