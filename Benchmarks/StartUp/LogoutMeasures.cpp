#include "Benchmarks/StartUp/LogoutMeasures.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

namespace utilia::bench {
namespace {

namespace fs = std::filesystem;

constexpr const char* kInfo = R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>CFBundleIdentifier</key><string>com.korvane.utilia.Logout</string>
<key>CFBundleExecutable</key><string>logout</string>
</dict></plist>
)";

// The program beside this one, as an application of its own.
fs::path makeBundle(const fs::path& folder) {
    const fs::path contents = folder / "Logout.app" / "Contents";
    fs::create_directories(contents / "Linux");
    std::ofstream(contents / "Info.plist") << kInfo;
    const fs::path program = fs::read_symlink("/proc/self/exe").parent_path() / "utilia-logout";
    fs::create_hard_link(program, contents / "Linux" / "logout");
    return contents / "Linux" / "logout";
}

double endOnce(const fs::path& program) {
    int ends[2];
    check(pipe2(ends, O_CLOEXEC), "pipe2");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    char* const arguments[] = {const_cast<char*>(program.c_str()), nullptr};
    pid_t child = -1;
    errno = posix_spawn(&child, program.c_str(), &actions, nullptr, arguments, environ);
    if (errno != 0) fail("posix_spawn " + program.string());
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    char ready = 0;
    if (read(ends[0], &ready, 1) != 1) fail("the tool does not start");
    const std::uint64_t before = nanoseconds();
    check(kill(child, SIGTERM), "kill");
    waitFor(child);
    close(ends[0]);
    return static_cast<double>(nanoseconds() - before) / 1e6;
}

double writeOnce(const fs::path& folder, const std::vector<std::uintmax_t>& sizes) {
    const std::uint64_t before = nanoseconds();
    for (const std::uintmax_t size : sizes) {
        const std::vector<char> bytes(size, 'x');
        const std::string path = (folder / "limit.new").string();
        const int file = check(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), "open");
        check(write(file, bytes.data(), bytes.size()), "write");
        check(fdatasync(file), "fdatasync");
        close(file);
        fs::rename(path, folder / ("limit-" + std::to_string(size)));
    }
    return static_cast<double>(nanoseconds() - before) / 1e6;
}

// What one end of the tool leaves behind; fails when that is not the record and both icons.
std::vector<std::uintmax_t> storedSizes(const fs::path& folder) {
    std::vector<std::uintmax_t> sizes;
    for (const auto& entry : fs::recursive_directory_iterator(folder / "data")) {
        if (entry.is_regular_file() && entry.file_size() > 0) sizes.push_back(entry.file_size());
    }
    if (sizes.size() != 3) {
        errno = 0;
        fail("the tool stores " + std::to_string(sizes.size()) + " files instead of 3");
    }
    return sizes;
}

}  // namespace

Figures measureLogout(const Settings& settings) {
    const fs::path folder = settings.folder;
    const fs::path program = makeBundle(folder);
    endOnce(program);  // warms up, and shows what is stored
    const std::vector<std::uintmax_t> sizes = storedSizes(folder);
    std::vector<double> tool, files;
    const int rounds = std::max(3, static_cast<int>(settings.seconds * 20));
    for (int i = 0; i < rounds; ++i) {
        tool.push_back(endOnce(program));
        files.push_back(writeOnce(folder, sizes));
    }
    return {{"tool_ms", percentile(tool, 50)}, {"files_ms", percentile(files, 50)}};
}

}  // namespace utilia::bench
