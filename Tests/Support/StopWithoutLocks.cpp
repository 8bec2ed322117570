#include "Tests/Support/StopWithoutLocks.h"

#include <csignal>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>

#include <sys/stat.h>

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

bool isIn(const fs::path& folder, ino_t wanted) {
    struct stat status {};
    if (stat(folder.c_str(), &status) == 0 && status.st_ino == wanted) return true;
    std::error_code vanished;  // others make and remove files meanwhile
    for (auto each = fs::recursive_directory_iterator(folder, vanished);
         each != fs::recursive_directory_iterator(); each.increment(vanished)) {
        if (lstat(each->path().c_str(), &status) == 0 && status.st_ino == wanted) return true;
    }
    return false;
}

// The kernel tells it for each descriptor, as NUMBER: FLOCK ADVISORY WRITE PROCESS MAJOR:MINOR:INODE START END. Its list of
// all locks would not do: entries are missing from it while others come and go.
bool holdsLock(pid_t process, const fs::path& folder) {
    for (const auto& descriptor :
         fs::directory_iterator("/proc/" + std::to_string(process) + "/fdinfo")) {
        std::ifstream file(descriptor.path());
        for (std::string line; std::getline(file, line);) {
            std::istringstream words(line);
            std::string label, number, kind, strength, access, holder, place;
            if (!(words >> label >> number >> kind >> strength >> access >> holder >> place) ||
                label != "lock:" || kind != "FLOCK")
                continue;
            if (isIn(folder, std::stoul(place.substr(place.rfind(':') + 1)))) return true;
        }
    }
    return false;
}

}  // namespace

void stopWithoutLocks(pid_t process, const fs::path& folder) {
    const bool isStopped = eventually([&] {
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
