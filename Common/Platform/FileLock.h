#pragma once

#include <chrono>
#include <filesystem>
#include <optional>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {

// An advisory lock on a file or folder, by which the processes of the suite take turns.
//
// Protocol: acquire, re-read what the lock guards, change it, write it, release.
// What was read before the lock was held is stale by definition.
//
// The lock file is never removed. Unlinking a file that others may have open lets the next process lock a new
// inode of the same name, and both believe they hold it.
//
// A lock belongs to its open file: a second acquire of the same path in one process waits for the first. It ends
// with this object or with the process, however that ends; a forked child does not keep it.
//
// Threads: an instance belongs to one thread.
class UTILIA_EXPORT FileLock final {
public:
    enum class Mode { Shared, Exclusive };

    // Waits at most `timeout`; creates the file (0600), but not its folder, and never follows a link as the last
    // component. Fails with UtiliaErrorCode::Busy while another holder keeps it, or with the error of the open.
    static Result<FileLock> acquire(const std::filesystem::path& path, Mode mode, std::chrono::milliseconds timeout);

    // Locks an existing folder; waits as long as it takes. A wait of more than two seconds is logged once, with the
    // holder's process id where the system tells it. Fails only with the error of the open.
    static Result<FileLock> acquireFolder(const std::filesystem::path& path, Mode mode);

    FileLock(FileLock&&) noexcept = default;
    FileLock& operator=(FileLock&&) noexcept;
    ~FileLock();

    void release();
    bool isHeld() const;
    int descriptor() const { return file_.get(); }

private:
    explicit FileLock(UniqueFd file);
    UniqueFd file_;
};

}  // namespace utilia::platform
