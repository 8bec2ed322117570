#include <algorithm>
#include <cerrno>
#include <limits>
#include <mutex>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Platform/Bundle.h"
#include "Common/Platform/Linux/FileName.h"
#include "Common/Platform/Linux/Folders.h"
#include "Common/Platform/Linux/ForkGuard.h"
#include "Common/Platform/Linux/RunningList.h"
#include "Common/Platform/UniqueFd.h"
#include "Common/Platform/Workspace.h"

// Who runs is what the kernel says. Each bundle identifier has one empty file in the runtime
// folder; a process that runs as that application holds a POSIX record lock on the byte at its
// process id. The kernel frees the lock when the process ends, however it ends; fork() does not
// pass it on; and F_GETLK tells the holder of a byte, so listing needs neither a daemon nor a
// liveness guess, and no left-over can be mistaken for a living process.
//
// Three properties of these locks shape the code:
// - Closing any descriptor of the file drops all locks that the process has on it. So the process
//   keeps one descriptor for its life, and lists its own identifier through that same descriptor;
//   one mutex keeps a listing from opening the file while another thread registers.
// - A process never sees its own locks. It adds itself.
// - F_GETLK answers any conflicting lock of the range, not the lowest. So the walk splits the range
//   at each find.
//
// The files are never removed: a process that holds a lock on an unlinked file would be invisible.

namespace utilia::platform {
namespace {

constexpr off_t kLastByte = std::numeric_limits<int>::max();  // above every process id

struct Registration {
    std::mutex mutex;
    pid_t process = 0;  // who registered: a forked child inherits this memory, but not the lock
    std::string key;
    UniqueFd file;
};

// Never destroyed: the lock lasts until the kernel frees it.
Registration& registration() {
    static Registration* const instance = new Registration;
    return *instance;
}

// Bundle identifiers are compared without regard to the case of ASCII letters.
std::string keyForIdentifier(std::string_view identifier) {
    std::string key(identifier);
    for (char& c : key) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return key;
}

Result<UniqueFd> openRunningFile(const std::string& folder, const std::string& key, int flags) {
    const std::string path = folder + "/" + key;
    UniqueFd file(open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    if (!file) return Error::posix(errno, "open", path);
    struct stat found {};
    if (fstat(file.get(), &found) != 0) return Error::posix(errno, "fstat", path);
    if (!S_ISREG(found.st_mode)) {
        return Error::utilia(UtiliaErrorCode::Refused, path + ": is no regular file");
    }
    return file;
}

struct flock lockOfRange(off_t first, off_t last) {
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = first;
    range.l_len = last - first + 1;
    return range;
}

void collectHolders(int file, std::vector<std::int64_t>& holders) {
    std::vector<std::pair<off_t, off_t>> ranges{{1, kLastByte}};
    while (!ranges.empty()) {
        const auto [first, last] = ranges.back();
        ranges.pop_back();
        struct flock found = lockOfRange(first, last);
        if (fcntl(file, F_GETLK, &found) != 0 || found.l_type == F_UNLCK) continue;
        if (found.l_len == 1 && found.l_pid == found.l_start) holders.push_back(found.l_pid);
        if (found.l_start > first) ranges.emplace_back(first, found.l_start - 1);
        // A length of 0 is a lock to the end of the file, which no application of ours takes.
        const off_t next = found.l_start + found.l_len;
        if (found.l_len > 0 && next <= last) ranges.emplace_back(next, last);
    }
}

}  // namespace

std::vector<std::int64_t> listedProcesses(const std::string& runningFolder,
                                          std::string_view bundleIdentifier) {
    if (!isUsableBundleIdentifier(bundleIdentifier)) return {};
    const std::string key = keyForIdentifier(bundleIdentifier);
    std::vector<std::int64_t> holders;
    {
        Registration& own = registration();
        const std::lock_guard guard(own.mutex);
        if (own.process == getpid() && own.key == key) {
            collectHolders(own.file.get(), holders);
            holders.push_back(own.process);
        } else if (!runningFolder.empty()) {
            if (const auto file = openRunningFile(runningFolder, key, O_RDONLY)) {
                collectHolders(file->get(), holders);
            }
        }
    }
    std::sort(holders.begin(), holders.end());
    return holders;
}

std::vector<RunningApplication>
RunningApplication::runningApplicationsWithBundleIdentifier(std::string_view bundleIdentifier) {
    const auto folder = ensureRuntimeSubfolder("running");
    // A process that is registered lists itself also when its folder has gone.
    const auto processes = listedProcesses(folder.value_or(""), bundleIdentifier);
    std::vector<RunningApplication> applications(processes.size());
    for (std::size_t i = 0; i < processes.size(); ++i) {
        applications[i].processIdentifier_ = processes[i];
        applications[i].bundleIdentifier_ = bundleIdentifier;
    }
    return applications;
}

Result<void> RunningApplication::registerCurrentApplication() {
    const Bundle* const bundle = Bundle::mainBundle();
    const auto identifier = bundle ? bundle->bundleIdentifier() : std::nullopt;
    if (!identifier) {
        return Error::utilia(UtiliaErrorCode::NotFound,
                             "this program is no application: it has no bundle with an identifier");
    }
    if (!isUsableBundleIdentifier(*identifier)) {
        return Error::utilia(UtiliaErrorCode::Refused,
                             *identifier + ": cannot be used as a bundle identifier");
    }
    Registration& own = registration();
    const std::lock_guard guard(own.mutex);
    if (own.process == getpid()) return {};
    std::string key = keyForIdentifier(*identifier);
    const auto folder = ensureRuntimeSubfolder("running");
    if (!folder) return folder.error();
    auto file = openRunningFile(*folder, key, O_RDWR | O_CREAT);
    if (!file) return std::move(file).error();
    const struct flock byte = lockOfRange(getpid(), getpid());
    if (fcntl(file->get(), F_SETLK, &byte) != 0) {
        return Error::posix(errno, "lock", "the process's byte in the list of " + key);
    }
    ForkGuard::closeInChild(file->get());
    // After a fork the inherited number may name anything: it is forgotten, not closed.
    own.file.release();
    own.file = std::move(*file);
    own.key = std::move(key);
    own.process = getpid();
    return {};
}

}  // namespace utilia::platform
