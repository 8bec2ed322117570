#include "Benchmarks/StartUp/ConstructorMeasures.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <unistd.h>

#include "Benchmarks/StartUp/Installation.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"

namespace utilia::bench {
namespace {

namespace fs = std::filesystem;

constexpr const char* kAgent = "com.korvane.utilia";

void fillPreferences() {
    Array descriptions;
    for (int i = 0; i < 20; ++i) {
        Dictionary texts;
        for (int language = 0; language < 10; ++language) {
            texts.set("language " + std::to_string(language),
                      "Update " + std::to_string(i) +
                          std::string(240, static_cast<char>('a' + language)));
        }
        descriptions.append(Dictionary{{"version", i}, {"texts", texts}});
    }
    const auto preferences = platform::UserDefaults::initWithDomain(kAgent);
    preferences->setObject(descriptions, "UpdateDescriptions");
    preferences->setObject(true, kToolLauncherMigratedKey);
}

// An /etc with a white-list that names every tool; what a start reads of the machine's is there too.
// False without the right to it.
bool enterOwnEtc(const fs::path& folder, const std::vector<std::string>& names) {
    const fs::path etc = folder / "etc";
    fs::create_directories(etc / kAgent);
    for (const char* name : {"ld.so.cache", "passwd", "group", "nsswitch.conf"}) {
        if (fs::exists(fs::path("/etc") / name)) fs::copy_file(fs::path("/etc") / name, etc / name);
    }
    std::ofstream settings(etc / kAgent / "settings.conf");
    settings << "{\"WhiteToolsList\": [";
    for (std::size_t i = 0; i < names.size(); ++i)
        settings << (i == 0 ? "\"" : ", \"") << names[i] << '"';
    settings << "]}\n";
    settings.close();
    if (unshare(CLONE_NEWNS) != 0) {
        std::fprintf(stderr, "\nbefore main, with a white-list: not measured, as it takes root\n");
        return false;
    }
    check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "a private mount namespace");
    check(mount(etc.c_str(), "/etc", nullptr, MS_BIND, nullptr), "an /etc of its own");
    return true;
}

double startOnce(const fs::path& program) {
    int ends[2];
    check(pipe2(ends, O_CLOEXEC), "pipe2");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    char* const arguments[] = {const_cast<char*>(program.c_str()), nullptr};
    pid_t child = -1;
    errno = posix_spawn(&child, program.c_str(), &actions, nullptr, arguments, environ);
    if (errno != 0) fail("posix_spawn " + program.string());
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    char text[32] = {};
    check(read(ends[0], text, sizeof text - 1), "read");
    close(ends[0]);
    waitFor(child);
    const double nanoseconds = std::atof(text);
    if (nanoseconds <= 0) fail("the tool does not reach its main");
    return nanoseconds / 1e3;
}

std::pair<double, double> inTurns(const fs::path& framework, const fs::path& glib, int rounds) {
    std::vector<double> with, without;
    for (int i = 0; i < rounds; ++i) {
        with.push_back(startOnce(framework));
        without.push_back(startOnce(glib));
    }
    return {percentile(with, 50), percentile(without, 50)};
}

}  // namespace

Figures measureConstructor(const Settings& settings) {
    const fs::path folder = settings.folder;
    const std::vector<std::string> tools = ToolSets::fullSet();
    // The last name of the list is the one that is found last.
    const Installation installation(folder / "prefix");
    const fs::path framework =
        installation.addApplication("utilia-constructor-framework", tools.back());
    const fs::path glib = installation.addApplication("utilia-constructor-glib", tools.back());
    fillPreferences();
    const int rounds = std::max(10, static_cast<int>(settings.seconds * 300));
    startOnce(framework);
    const auto [plain, plainGlib] = inTurns(framework, glib, rounds);
    std::vector<std::string> names;
    for (const std::string& identifier : tools)
        names.push_back(identifier.substr(kToolBundleIdentifierPrefix.size()));
    if (!enterOwnEtc(folder, names)) return {{"plain_us", plain - plainGlib}};
    const auto [listed, listedGlib] = inTurns(framework, glib, rounds);
    return {{"framework_us", listed},
            {"glib_us", listedGlib},
            {"constructor_us", listed - listedGlib},
            {"plain_us", plain - plainGlib}};
}

}  // namespace utilia::bench
