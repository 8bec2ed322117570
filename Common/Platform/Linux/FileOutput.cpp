#include "Common/Platform/Linux/FileOutput.h"

#include <cerrno>
#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Platform/Linux/TemporaryFiles.h"

namespace utilia::platform {
namespace {

constexpr int kNameAttempts = 100;

int openUninterrupted(const char* path, int flags, mode_t mode) {
    int descriptor;
    do {
        descriptor = open(path, flags, mode);
    } while (descriptor < 0 && errno == EINTR);
    return descriptor;
}

}  // namespace

FileOutput::FileOutput(std::string target, std::string staging)
    : target_(std::move(target)), staging_(std::move(staging)) {}

FileOutput::FileOutput(FileOutput&& other) noexcept
    : target_(std::move(other.target_)), staging_(std::move(other.staging_)),
      file_(std::move(other.file_)), isNamed_(std::exchange(other.isNamed_, false)),
      isSynced_(other.isSynced_) {}

FileOutput::~FileOutput() {
    if (isNamed_) unlink(staging_.c_str());
}

// The object is there before the file: nothing can fail between the creation and the entry that
// removes it again.
bool FileOutput::createNamed(mode_t mode) {
    file_.reset(openUninterrupted(staging_.c_str(),
                                  O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    isNamed_ = static_cast<bool>(file_);
    return isNamed_;
}

Result<FileOutput> FileOutput::createBeside(const std::string& target) {
    FileOutput output(target, {});
    const std::string folder = folderOf(target);
    removeLeftOvers(folder);
    output.file_.reset(openUninterrupted(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666));
    if (!output.file_ && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) {
        int attempt = 0;
        do {
            output.staging_ = temporaryName(target);
        } while (!output.createNamed(0666) && errno == EEXIST && ++attempt < kNameAttempts);
    }
    if (!output.file_) return Error::posix(errno, "create", target);
    return output;
}

Result<FileOutput> FileOutput::createFor(const std::string& target) {
    auto output = createBeside(target);
    struct stat existing {};
    if (output && stat(target.c_str(), &existing) == 0 && S_ISREG(existing.st_mode) &&
        fchmod(output->descriptor(), existing.st_mode & 07777) != 0) {
        return Error::posix(errno, "chmod", target);
    }
    return output;
}

Result<FileOutput> FileOutput::createStaged(const std::string& target, const std::string& staging) {
    FileOutput output(target, staging);
    if (output.createNamed(0600)) return output;
    if (errno != EEXIST) return Error::posix(errno, "create", staging);
    if (unlink(staging.c_str()) != 0 && errno != ENOENT)
        return Error::posix(errno, "unlink", staging);
    if (!output.createNamed(0600)) return Error::posix(errno, "create", staging);
    return output;
}

Result<void> FileOutput::write(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::write(file_.get(), bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return Error::posix(n < 0 ? errno : EIO, "write", target_);
        // The rest fails with the reason, or succeeds after an interruption.
        bytes = bytes.subspan(static_cast<std::size_t>(n));
    }
    return {};
}

Result<void> FileOutput::sync() {
    if (isSynced_) return {};
    int result;
    do {
        result = fdatasync(file_.get());
    } while (result != 0 && errno == EINTR);
    if (result != 0) return Error::posix(errno, "fdatasync", target_);
    isSynced_ = true;
    return {};
}

Result<void> FileOutput::finishWriting() {
    if (auto synced = sync(); !synced) return synced;
    const std::string self = "/proc/self/fd/" + std::to_string(file_.get());
    UniqueFd same(openUninterrupted(self.c_str(), O_PATH | O_CLOEXEC, 0));
    if (!same) return Error::posix(errno, "open", target_);
    file_ = std::move(same);
    return {};
}

Result<void> FileOutput::publish() {
    if (auto synced = sync(); !synced) return synced;
    if (!isNamed_) {
        if (auto named = giveName(); !named) return named;
    }
    if (rename(staging_.c_str(), target_.c_str()) != 0)
        return Error::posix(errno, "rename", target_);
    isNamed_ = false;
    return {};
}

Result<void> FileOutput::giveName() {
    const std::string self = "/proc/self/fd/" + std::to_string(file_.get());
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        staging_ = temporaryName(target_);
        if (linkat(AT_FDCWD, self.c_str(), AT_FDCWD, staging_.c_str(), AT_SYMLINK_FOLLOW) == 0) {
            isNamed_ = true;
            return {};
        }
        if (errno != EEXIST) break;
    }
    return Error::posix(errno, "link", target_);
}

}  // namespace utilia::platform
