#include "Benchmarks/StartUp/StartUpMeasures.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include <spawn.h>
#include <unistd.h>

namespace utilia::bench {
namespace {

// The programs lie beside this one.
std::string pathOf(const std::string& program) {
    char own[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", own, sizeof own - 1);
    check(length, "readlink");
    const std::string path(own, static_cast<std::size_t>(length));
    return path.substr(0, path.rfind('/') + 1) + "utilia-start-" + program;
}

double startOnce(const std::string& path) {
    char* const arguments[] = {const_cast<char*>(path.c_str()), nullptr};
    const std::uint64_t before = nanoseconds();
    pid_t child = -1;
    errno = posix_spawn(&child, path.c_str(), nullptr, nullptr, arguments, environ);
    if (errno != 0) fail("posix_spawn " + path);
    waitFor(child);
    return static_cast<double>(nanoseconds() - before) / 1e6;
}

}  // namespace

Figures measureStart(const Settings& settings) {
    const std::string names[] = {"empty", "framework"};
    std::vector<double> milliseconds[2];
    const int rounds = std::max(10, static_cast<int>(settings.seconds * 300));
    for (int i = 0; i < rounds; ++i) {
        for (const std::size_t which : {0u, 1u})
            milliseconds[which].push_back(startOnce(pathOf(names[which])));
    }
    Figures figures;
    for (const std::size_t which : {0u, 1u})
        figures.emplace_back(names[which] + "_ms", percentile(milliseconds[which], 50));
    for (const std::string& name : names) {
        FILE* description = popen((pathOf(name) + " describe").c_str(), "r");
        if (!description) fail("popen");
        double objects = 0, privateKilobytes = 0;
        if (std::fscanf(description, "%lf %lf", &objects, &privateKilobytes) != 2)
            fail("the program describes nothing");
        pclose(description);
        figures.emplace_back(name + "_objects", objects);
        figures.emplace_back(name + "_kib", privateKilobytes);
    }
    return figures;
}

}  // namespace utilia::bench
