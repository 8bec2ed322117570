#include "Benchmarks/StartUp/StartUpMeasures.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include <spawn.h>
#include <unistd.h>

#include "Benchmarks/StartUp/Installation.h"

namespace utilia::bench {
namespace {

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
    const Installation installation(std::filesystem::path(settings.folder) / "prefix");
    const std::string programs[] = {installation.addProgram("utilia-start-empty"),
                                    installation.addProgram("utilia-start-framework")};
    // The first start of a user does what no other does.
    startOnce(programs[1]);
    std::vector<double> milliseconds[2];
    const int rounds = std::max(10, static_cast<int>(settings.seconds * 300));
    for (int i = 0; i < rounds; ++i) {
        for (const std::size_t which : {0u, 1u})
            milliseconds[which].push_back(startOnce(programs[which]));
    }
    Figures figures;
    for (const std::size_t which : {0u, 1u})
        figures.emplace_back(names[which] + "_ms", percentile(milliseconds[which], 50));
    for (const std::size_t which : {0u, 1u}) {
        const std::string& name = names[which];
        FILE* description = popen((programs[which] + " describe").c_str(), "r");
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
