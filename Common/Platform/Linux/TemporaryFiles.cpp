#include "Common/Platform/Linux/TemporaryFiles.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <memory>
#include <optional>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {
namespace {

constexpr int kEntriesSearched = 10'000;
constexpr std::string_view kTemporaryPrefix = ".utilia-";

// Who made a file of that name; nothing when temporaryName() does not make such names.
std::optional<pid_t> writerOf(std::string_view name) {
    if (!name.starts_with(kTemporaryPrefix)) return std::nullopt;
    const char* const end = name.data() + name.size();
    pid_t writer = 0;
    const auto first = std::from_chars(name.data() + kTemporaryPrefix.size(), end, writer);
    if (first.ec != std::errc{} || writer <= 0 || first.ptr == end || *first.ptr != '-')
        return std::nullopt;
    unsigned number = 0;
    const auto second = std::from_chars(first.ptr + 1, end, number);
    if (second.ec != std::errc{} || second.ptr != end) return std::nullopt;
    return writer;
}

int openFolderUninterrupted(const char* path) {
    int descriptor;
    do {
        descriptor = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    } while (descriptor < 0 && errno == EINTR);
    return descriptor;
}

}  // namespace

std::string temporaryName(const std::string& target) {
    static std::atomic<unsigned> counter{0};
    const std::size_t slash = target.find_last_of('/');
    const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
    return target.substr(0, begin).append(kTemporaryPrefix) + std::to_string(getpid()) + "-" +
           std::to_string(counter.fetch_add(1, std::memory_order_relaxed));
}

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

void removeLeftOvers(const std::string& path) {
    UniqueFd folder(openFolderUninterrupted(path.c_str()));
    if (!folder) return;
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(fdopendir(folder.get()), &closedir);
    if (!entries) return;
    const int descriptor = folder.release();
    for (int i = 0; i < kEntriesSearched; ++i) {
        const dirent* entry = readdir(entries.get());
        if (!entry) return;
        const auto writer = writerOf(entry->d_name);
        if (!writer || kill(*writer, 0) == 0 || errno != ESRCH) continue;
        struct stat found {};
        if (fstatat(descriptor, entry->d_name, &found, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(found.st_mode) && found.st_uid == geteuid()) {
            unlinkat(descriptor, entry->d_name, 0);
        }
    }
}

}  // namespace utilia::platform
