#include "Tests/Support/StopWithoutLocks.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <system_error>

#include "Common/Platform/RunLoop.h"
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

// How often each thread was taken off its processor.
std::map<fs::path, long> switchesOf(pid_t process) {
    std::map<fs::path, long> all;
    for (const auto& thread :
         fs::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        std::ifstream file(thread.path() / "status");
        for (std::string line; std::getline(file, line);) {
            if (line.find("voluntary_ctxt_switches:") != std::string::npos)
                all[thread.path()] += std::stol(line.substr(line.find(':') + 1));
        }
    }
    return all;
}

// Until each thread has had a processor. One that is stopped again before never gets to the end of what it has a lock for
// where others run meanwhile. A thread that has a processor for itself is not taken off it.
void letRun(pid_t process, const std::map<fs::path, long>& before) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    while (std::chrono::steady_clock::now() < deadline) {
        const auto now = switchesOf(process);
        const auto hasRun = [&](const auto& thread) {
            const auto found = now.find(thread.first);
            return found == now.end() || found->second > thread.second;
        };
        if (std::all_of(before.begin(), before.end(), hasRun)) return;
        platform::RunLoop::currentRunLoop().runFor(std::chrono::milliseconds(1));
    }
}

}  // namespace

void stopWithoutLocks(pid_t process, const fs::path& folder) {
    const bool isStopped = eventually([&] {
        kill(process, SIGSTOP);
        if (!eventually([&] { return stands(process); }))
            throw std::runtime_error("process " + std::to_string(process) + " does not stop");
        if (!holdsLock(process, folder)) return true;
        const auto before = switchesOf(process);
        kill(process, SIGCONT);
        letRun(process, before);
        return false;
    });
    if (!isStopped)
        throw std::runtime_error("process " + std::to_string(process) + " always has a lock");
}

}  // namespace utilia::test
