#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <sys/mman.h>
#include <sys/types.h>

// What every measurement is made with. A measurement runs in a process of its own, which nothing
// before it has warmed, filled or started threads in; whatever goes wrong in one ends it with a
// message.

namespace utilia::bench {

// Metric and value, in the order in which they are shown.
using Figures = std::vector<std::pair<std::string, double>>;

struct Settings {
    double seconds = 0.5;  // how long one measurement goes on
    std::string folder;    // for files, on a real disk; private and empty at the start
};

[[noreturn]] void fail(const std::string& what);           // with errno
int check(long result, const char* what);                  // fails below 0, answers the result
std::uint64_t nanoseconds();                               // a clock that only goes forward
double percentile(std::vector<double>& values, double p);  // nearest rank; sorts; 0 without values
void pinToOneCore();  // this process and those it starts from now on

// Puts this process, and those it starts, before what else the machine does, where that is allowed;
// it dies with its parent.
void goFirst();

// Runs the work in a child, which dies with its parent. waitFor() fails when the work did.
pid_t inChild(const std::function<void()>& work);
void waitFor(pid_t child);
// Waits for something that another process does at once; fails after 20 s, because that process has
// died.
void waitUntil(const std::function<bool()>& done);
// Ends a program that was started for the measurement.
void endProgram(pid_t child);

// Values that a parent shares with the children it forks; never unmapped.
template <class T>
T* shared(std::size_t count = 1) {
    void* memory =
        mmap(nullptr, sizeof(T) * count, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) fail("mmap");
    return new (memory) T[count]();
}

}  // namespace utilia::bench
