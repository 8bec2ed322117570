#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {

// A plain file of this user that is locked as long as it is open: for files that several processes
// fill, hand over and take away.
//
// The lock belongs to the file and not to its name. Whoever has waited for it may hold a file that
// was renamed or removed in the meantime, and asks isAtPath() before he relies on the name.
//
// A link in the file's place is not followed (ELOOP), and no open waits for the other end of a pipe.
// What else may lie there tells status(). Locks are waited for as long as it takes; a wait of more
// than two seconds is logged once. Failures are those of the system; running out of memory is ENOMEM.
//
// Threads: only the one that uses the object. Two objects of one process exclude each other like
// those of two.
class UTILIA_EXPORT LockedFile final {
public:
    enum class Lock { Shared, Exclusive };
    enum class Access { Read, Append };

    struct Status {
        std::uint64_t size = 0;
        std::uint64_t device = 0;
        std::uint64_t inode = 0;
        std::uint64_t links = 0;  // names that it has
        std::uint32_t owner = 0;
        bool isOwnerWritable = false;

        bool isSameFileAs(const Status& other) const {
            return device == other.device && inode == other.inode && owner == other.owner;
        }
    };

    // An existing file, whatever it is.
    static Result<LockedFile> open(const std::string& path, Access access, Lock lock);
    // A file to read and write, made with `mode` less the umask when there is none; fails
    // as status() does. Exclusive.
    static Result<LockedFile> openOrCreate(const std::string& path, std::uint32_t mode);
    // A new file to append to, with `mode` less the umask and with exclusive lock. Whoever finds it
    // under its name finds it locked and with all of `content` in it, which is written in one step.
    // EEXIST when the name is taken, also by a link that leads nowhere. On failure nothing is left.
    static Result<LockedFile> create(const std::string& path, std::uint32_t mode,
                                     std::span<const std::string_view> content);

    LockedFile(LockedFile&& other) noexcept = default;
    LockedFile& operator=(LockedFile&& other) noexcept;
    ~LockedFile();

    // Fails for anything but a plain file of this user: a folder with EISDIR, a pipe or device with
    // EACCES, another user's file with EPERM.
    Result<Status> status();
    // Whether `path` names this very file; false when it names none.
    Result<bool> isAtPath(const std::string& path) const;
    // Waits for the lock; one that the object has already is given up before the other is there.
    Result<void> lock(Lock lock);
    // The same without waiting: false when somebody else's lock is in the way.
    Result<bool> tryLock(Lock lock);
    // The file stays open, and others may have their turn.
    Result<void> unlock();
    // For a file that stays open while its process does something else. That may be to close every
    // descriptor, and then the number is one of its own files' next. From here on it is closed only as
    // long as it is this file's, by this object as well as in a forked child. For one file of a process at a time: two with
    // one number are not told apart.
    Result<void> keep();
    // Whether the number still is this file's, of which keep() has been called. To be asked before
    // anything else is done with it; costs less than status().
    bool isStillKept() const;
    // False in a forked child, where the file is closed and only lets itself be destroyed.
    bool isOfThisProcess() const;

    // In one step, and never finished in a second one: what could not be written whole is an error,
    // though a part of it may be in the file.
    Result<void> append(std::string_view bytes);
    // From where the last one ended, at first from the file's beginning; 0 at its end.
    Result<std::size_t> read(std::span<char> buffer);
    Result<void> rewind();
    // At any place, whatever the access: bytes that replace others.
    Result<void> overwrite(std::uint64_t offset, std::string_view bytes);
    // Only the right to read stays, for everybody who had it.
    Result<void> makeReadOnly();
    // Until the data is on the disk.
    Result<void> synchronize();

    // The open file, with its lock; the object is empty then.
    UniqueFd takeDescriptor();

    // A file without a name, of this content and for reading only, locked like the others.
    static Result<LockedFile> createNameless(std::string_view content);

    // Renames; what has the new name already is replaced.
    static Result<void> rename(const std::string& path, const std::string& newPath);
    // The same, but EEXIST when the new name is taken.
    static Result<void> renameUnlessTaken(const std::string& path, const std::string& newPath);
    static Result<void> removeName(const std::string& path);

private:
    explicit LockedFile(int guarded);
    static Result<std::optional<LockedFile>>
    createUnnamed(const std::string& path, std::uint32_t mode,
                  std::span<const std::string_view> content);
    static Result<LockedFile> createNamed(const std::string& path, std::uint32_t mode,
                                          std::span<const std::string_view> content);
    Result<void> lockAndFill(std::span<const std::string_view> content, const std::string& path);
    void release();
    Result<int> readable();  // the descriptor

    UniqueFd file_;
    unsigned generation_;      // of processes, at the time of opening
    bool isExamined_ = false;  // and found to be a plain file of this user
    bool isKept_ = false;
    UniqueFd reader_;  // of a file that was opened to append to
};

}  // namespace utilia::platform
