#include <cstdint>
#include <cstdio>
#include <ctime>

// Prints the nanoseconds between two moments of its start: before the constructors of its libraries
// run, and after. Built once with the framework, and once with GLib alone.

namespace {

std::uint64_t before = 0;
std::uint64_t after = 0;

std::uint64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 +
           static_cast<std::uint64_t>(time.tv_nsec);
}

void beforeLibraries() { before = now(); }
__attribute__((constructor)) void afterLibraries() { after = now(); }

// What the loader calls first of all.
__attribute__((section(".preinit_array"), used)) void (*const first)() = beforeLibraries;

}  // namespace

int main() {
    std::printf("%llu\n", static_cast<unsigned long long>(after - before));
    return 0;
}
