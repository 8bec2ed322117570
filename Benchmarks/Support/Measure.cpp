#include "Benchmarks/Support/Measure.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>

#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace utilia::bench {

namespace {

pid_t measuringProcess = 0;  // known in its children

// What a child could not do, its measurement would wait for.
void endMeasurement() {
    std::fflush(nullptr);
    if (measuringProcess != 0 && measuringProcess != getpid()) kill(measuringProcess, SIGTERM);
}

}  // namespace

void fail(const std::string& what) {
    std::fprintf(stderr, "benchmark: %s: %s\n", what.c_str(), std::strerror(errno));
    endMeasurement();
    std::exit(1);
}

int check(long result, const char* what) {
    if (result < 0) fail(what);
    return static_cast<int>(result);
}

std::uint64_t nanoseconds() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 +
           static_cast<std::uint64_t>(time.tv_nsec);
}

double percentile(std::vector<double>& values, double p) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const double place = p / 100 * static_cast<double>(values.size() - 1);
    return values[static_cast<std::size_t>(std::lround(place))];
}

void pinToOneCore() {
    // The last core: interrupts and everybody else's first process tend to be on the first.
    cpu_set_t allowed;
    check(sched_getaffinity(0, sizeof allowed, &allowed), "sched_getaffinity");
    int last = 0;
    for (int i = 0; i < CPU_SETSIZE; ++i) {
        if (CPU_ISSET(i, &allowed)) last = i;
    }
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(last, &one);
    check(sched_setaffinity(0, sizeof one, &one), "sched_setaffinity");
}

void goFirst() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // The scheduler shares time out between sessions before it looks at single processes, so a
    // session of its own is what must be preferred.
    setsid();
    setpriority(PRIO_PROCESS, 0, -20);
    std::ofstream("/proc/self/autogroup") << "-20";
}

pid_t inChild(const std::function<void()>& work) {
    std::fflush(nullptr);
    const pid_t parent = getpid();
    const pid_t child = check(fork(), "fork");
    if (child != 0) return child;
    measuringProcess = parent;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    int status = 0;
    try {
        work();
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "benchmark: %s\n", exception.what());
        status = 1;
    }
    std::fflush(nullptr);
    if (status != 0) endMeasurement();
    _exit(status);
}

void waitFor(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) fail("waitpid");
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "benchmark: a process of the measurement failed (status %#x)\n",
                     static_cast<unsigned>(status));
        std::exit(1);
    }
}

void waitUntil(const std::function<bool()>& done) {
    const std::uint64_t end = nanoseconds() + 20'000'000'000;
    while (!done()) {
        if (nanoseconds() > end) {
            std::fprintf(stderr, "benchmark: a process of the measurement does not answer\n");
            std::exit(1);
        }
        usleep(200);
    }
}

void endProgram(pid_t child) {
    kill(child, SIGTERM);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace utilia::bench
