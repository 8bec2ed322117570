#pragma once

#include <chrono>
#include <filesystem>
#include <optional>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {

// Exclusion between processes, and between the threads of one: whoever has acquired a path shuts out all others who
// ask for the same path, as far as they ask. It protects nothing by itself.
//
// So whoever changes guarded data looks at it anew once acquire() has returned. An earlier look may have been
// overtaken.
//
// Nobody deletes the file that a lock lies on: a latecomer would create and lock another one under the old name
// while somebody still holds the deleted one.
//
// Two objects of one process exclude each other like those of two processes. The kernel frees the lock when the
// object or its process is gone, killed or not. Children made by fork() do not inherit it.
//
// Threads: only the one that uses the object; it has no mutex.
class UTILIA_EXPORT FileLock final {
public:
    enum class Mode { Shared, Exclusive };

    // A missing file is made with mode 0600, a missing folder is the error of the open, and so is a link in the
    // file's place. UtiliaErrorCode::Busy when `timeout` has gone by and somebody else still has the lock.
    static Result<FileLock> acquire(const std::filesystem::path& path, Mode mode,
                                    std::chrono::milliseconds timeout);

    // Locks an existing folder; waits as long as it takes. A wait of more than two seconds is logged once, with the
    // holder's process id where the system tells it. Fails only with the error of the open.
    static Result<FileLock> acquireFolder(const std::filesystem::path& path, Mode mode);
    // The same within a time, and without the log: UtiliaErrorCode::Busy names the holder.
    static Result<FileLock> acquireFolder(const std::filesystem::path& path, Mode mode,
                                          std::chrono::milliseconds timeout);

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
