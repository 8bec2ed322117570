#include "Common/Platform/Linux/FileReplacement.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/Linux/FileOutput.h"
#include "Common/Platform/UniqueFd.h"

// One rename puts the new file in the place of the old one, or where none was. It cannot be met half
// way, and it does not touch the old file, which may be running: whoever has it open keeps it. So
// there is never a moment without a file, and nothing that a backup would be needed for.
//
// The file has its content on the disk and its final mode before the rename: who finds it under its
// new name can use it at once. That the mode is given in the old place means that it may be left
// there by a process that is killed, which costs nothing; to give it the file a third place, between
// the old and the new one, would risk the file itself.
//
// From another file system the file is copied to a temporary file beside the target, which is
// renamed. That file is closed for writing before it gets a name: the kernel refuses to run what
// somebody still writes to. Only then the given file is removed. What has to be so for that is
// looked at first, because a file that is in place already cannot be taken back.

namespace utilia::platform {
namespace {

std::string folderOf(const std::string& path) {
    const std::string folder = stringByDeletingLastPathComponent(path);
    return folder.empty() ? "." : folder;
}

// The file that is to be moved: not behind a link, and nothing but a regular file.
class Source final {
public:
    static Result<Source> open(const std::string& path) {
        Source source(path);
        constexpr int kFlags = O_NOFOLLOW | O_CLOEXEC;
        do {
            source.file_.reset(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | kFlags));
        } while (!source.file_ && errno == EINTR);
        source.isReadable_ = static_cast<bool>(source.file_);
        // To be moved a file need not be readable.
        if (!source.file_ && errno == EACCES)
            source.file_.reset(::open(path.c_str(), O_PATH | kFlags));
        if (!source.file_) return Error::posix(errno, "open", path);
        if (fstat(source.file_.get(), &source.status_) != 0)
            return Error::posix(errno, "stat", path);
        if (S_ISDIR(source.status_.st_mode)) return Error::posix(EISDIR, "move", path);
        if (S_ISLNK(source.status_.st_mode)) return Error::posix(ELOOP, "open", path);
        if (!S_ISREG(source.status_.st_mode)) return Error::posix(EACCES, "move", path);
        return source;
    }

    const std::string& path() const { return path_; }
    const struct stat& status() const { return status_; }
    mode_t mode() const { return status_.st_mode & 07777; }
    int descriptor() const { return file_.get(); }
    bool isReadable() const { return isReadable_; }

    // A file of another owner keeps its mode; whoever asked for another one finds out afterwards.
    void giveMode(mode_t mode) const {
        // By its name in /proc, which needs no right to the content.
        char self[32];
        std::snprintf(self, sizeof self, "/proc/self/fd/%d", file_.get());
        (void)chmod(self, mode);
    }

    // What cannot be opened for reading cannot be synced.
    Result<void> sync() const {
        int result = 0;
        while (isReadable_ && (result = fdatasync(file_.get())) != 0 && errno == EINTR) {
        }
        if (result != 0) return Error::posix(errno, "fdatasync", path_);
        return {};
    }

private:
    explicit Source(std::string path) : path_(std::move(path)) {}

    std::string path_;
    UniqueFd file_;
    struct stat status_ {};
    bool isReadable_ = false;
};

// A mode that a file has for as long as this lives, and keeps if it is told so.
class TrialMode final {
public:
    TrialMode(const Source& source, std::optional<mode_t> mode)
        : source_(source), isGiven_(mode && *mode != source.mode()) {
        if (isGiven_) source_.giveMode(*mode);
    }
    TrialMode(const TrialMode&) = delete;
    TrialMode& operator=(const TrialMode&) = delete;
    ~TrialMode() {
        if (isGiven_) source_.giveMode(source_.mode());
    }

    void keep() { isGiven_ = false; }

private:
    const Source& source_;
    bool isGiven_;
};

bool isSameItem(const struct stat& left, const struct stat& right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

Result<void> removeSource(const std::string& path) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) return Error::posix(errno, "unlink", path);
    return {};
}

// Where both names are the same file already, rename would leave both of them.
Result<void> joinNames(const std::string& target, const Source& source) {
    struct stat targetFolder {};
    struct stat sourceFolder {};
    if (stat(folderOf(target).c_str(), &targetFolder) != 0)
        return Error::posix(errno, "stat", folderOf(target));
    if (stat(folderOf(source.path()).c_str(), &sourceFolder) != 0)
        return Error::posix(errno, "stat", folderOf(source.path()));
    if (isSameItem(targetFolder, sourceFolder) &&
        lastPathComponent(target) == lastPathComponent(source.path())) {
        return {};
    }
    return removeSource(source.path());
}

// What a rename would have taken along.
void copyMetadata(const Source& source, int file) {
    const timespec times[] = {source.status().st_atim, source.status().st_mtim};
    (void)futimens(file, times);
    constexpr std::size_t kLongestList = 64 * 1024;
    std::vector<char> names(kLongestList);
    const ssize_t size = flistxattr(source.descriptor(), names.data(), names.size());
    std::string_view rest(names.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    std::vector<std::uint8_t> value(kLongestList);
    while (!rest.empty()) {
        const std::string name(rest.substr(0, rest.find('\0')));
        rest.remove_prefix(std::min(name.size() + 1, rest.size()));
        if (!name.starts_with("user.")) continue;
        const ssize_t length =
            fgetxattr(source.descriptor(), name.c_str(), value.data(), value.size());
        if (length >= 0)
            (void)fsetxattr(file, name.c_str(), value.data(), static_cast<std::size_t>(length), 0);
    }
}

Result<void> copyContent(const Source& source, FileOutput& output) {
    std::vector<std::uint8_t> buffer(128 * 1024);
    for (;;) {
        const ssize_t n = read(source.descriptor(), buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return Error::posix(errno, "read", source.path());
        if (n == 0) return {};
        const auto part = std::span(buffer).first(static_cast<std::size_t>(n));
        if (auto written = output.write(part); !written) return written;
    }
}

// A mode that was asked for is tried; whoever asked finds out afterwards. The source's own is not
// for everybody, and a copy without it is none.
Result<void> giveMode(const FileOutput& output, const std::string& target, const Source& source,
                      std::optional<mode_t> asked) {
    mode_t mode = asked.value_or(source.mode());
    // A copy is this user's, and set-user-ID bits would now speak of him.
    if (source.status().st_uid != geteuid()) mode &= 0777;
    if (fchmod(output.descriptor(), mode) != 0 && !asked)
        return Error::posix(errno, "chmod", target);
    return {};
}

Result<void> copyAndRemove(const std::string& target, const Source& source,
                           std::optional<mode_t> asked) {
    if (!source.isReadable()) return Error::posix(EACCES, "open", source.path());
    const std::string sourceFolder = folderOf(source.path());
    if (faccessat(AT_FDCWD, sourceFolder.c_str(), W_OK | X_OK, AT_EACCESS) != 0)
        return Error::posix(errno, "unlink", source.path());
    auto output = FileOutput::createBeside(target);
    if (!output) return std::move(output).error();
    if (auto copied = copyContent(source, *output); !copied) return copied;
    if (auto given = giveMode(*output, target, source, asked); !given) return given;
    copyMetadata(source, output->descriptor());
    if (auto finished = output->finishWriting(); !finished) return finished;
    if (auto published = output->publish(); !published) return published;
    if (const auto removed = removeSource(source.path()); !removed) {
        KULogVariadic("%@ is in its new place, but stays in the old one too: %@", target,
                      removed.error());
    }
    return {};
}

// The file system of a folder that is not behind a link.
Result<dev_t> fileSystemOf(const std::string& path) {
    const UniqueFd folder(open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder) return Error::posix(errno, "open", path);
    struct stat found {};
    if (fstat(folder.get(), &found) != 0) return Error::posix(errno, "stat", path);
    return found.st_dev;
}

Result<void> move(const std::string& target, const Source& source, bool isSameFileSystem,
                  std::optional<mode_t> mode) {
    struct stat old {};
    if (lstat(target.c_str(), &old) == 0 && isSameItem(old, source.status()))
        return joinNames(target, source);
    if (isSameFileSystem) {
        if (auto synced = source.sync(); !synced) return synced;
        if (rename(source.path().c_str(), target.c_str()) == 0) return {};
        // Between two mounts of one file system.
        if (errno != EXDEV) return Error::posix(errno, "rename", target);
    }
    return copyAndRemove(target, source, mode);
}

}  // namespace

Result<void> replaceFile(const std::string& target, const std::string& source,
                         std::optional<mode_t> mode) {
    const auto file = Source::open(source);
    if (!file) return file.error();
    const auto fileSystem = fileSystemOf(folderOf(target));
    if (!fileSystem) return fileSystem.error();
    TrialMode trial(*file, mode);
    auto moved = move(target, *file, *fileSystem == file->status().st_dev, mode);
    if (moved) trial.keep();
    return moved;
}

}  // namespace utilia::platform
