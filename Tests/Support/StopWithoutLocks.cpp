#include "Tests/Support/StopWithoutLocks.h"

#include <algorithm>
#include <csignal>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>

#include "Tests/Support/RecordingPort.h"

namespace utilia::test {
namespace {

namespace fs = std::filesystem;

// The state of a thread, as the kernel writes it: after the name, which may have anything in it but ends with a bracket.
char stateOf(const fs::path& thread) {
    std::ifstream file(thread / "stat");
    const std::string line{std::istreambuf_iterator<char>(file), {}};
    const auto end = line.rfind(") ");
    return end == std::string::npos ? '?' : line[end + 2];
}

bool stands(pid_t process) {
    bool hasThreads = false;
    for (const auto& thread :
         fs::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        const char state = stateOf(thread.path());
        if (state == '?') continue;  // has just ended
        if (state != 'T') return false;
        hasThreads = true;
    }
    return hasThreads;
}

bool isIn(const fs::path& folder, const fs::path& file) {
    const auto [end, rest] = std::mismatch(folder.begin(), folder.end(), file.begin(), file.end());
    return end == folder.end();
}

// The kernel tells of each open file which locks it has. It also lists those of all processes, but leaves some out of that
// list while others come and go.
bool hasLock(const fs::path& descriptor) {
    std::ifstream file(descriptor);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("lock:") && line.find(" FLOCK ") != std::string::npos) return true;
    }
    return false;
}

// The name of a port is held for as long as the process lives, and nobody waits for it.
bool isPort(const fs::path& file) { return file.parent_path().filename() == "ports"; }

bool holdsLock(pid_t process, const fs::path& folder) {
    const fs::path all = "/proc/" + std::to_string(process);
    for (const auto& descriptor : fs::directory_iterator(all / "fdinfo")) {
        if (!hasLock(descriptor.path())) continue;
        std::error_code closed;
        const fs::path file = fs::read_symlink(all / "fd" / descriptor.path().filename(), closed);
        if (!closed && isIn(folder, file) && !isPort(file)) return true;
    }
    return false;
}

}  // namespace

void stopWithoutLocks(pid_t process, const fs::path& folder) {
    const bool isStopped = eventually([&] {
        // It has to run for that: one that is stopped again at once never gets to the end of what it has a lock for on a
        // machine where others run meanwhile.
        if (holdsLock(process, folder)) return false;
        kill(process, SIGSTOP);
        if (!eventually([&] { return stands(process); }))
            throw std::runtime_error("process " + std::to_string(process) + " does not stop");
        if (!holdsLock(process, folder)) return true;
        kill(process, SIGCONT);
        return false;
    });
    if (!isStopped)
        throw std::runtime_error("process " + std::to_string(process) + " always has a lock");
}

}  // namespace utilia::test
