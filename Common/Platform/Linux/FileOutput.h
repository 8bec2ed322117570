#pragma once

#include <cstdint>
#include <span>
#include <string>

#include <sys/types.h>

#include "Common/Foundation/Result.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {

// The next content of a file: filled aside, then put in the file's place at once. Whatever lies
// there before is untouched until publish() succeeds, and an object that ends without it leaves
// nothing behind.
class FileOutput final {
public:
    // A file without name in the folder of `target` (with a name of its own where the file system
    // has no such files), mode 0666 less the umask. Files of this user that writers left in that
    // folder when they were killed are removed first; those of living processes stay.
    static Result<FileOutput> createBeside(const std::string& target);
    // The same with the mode of the target, where there is one.
    static Result<FileOutput> createFor(const std::string& target);
    // A file named `staging`, mode 0600, for writers that take turns by a lock: what a killed one
    // left under that name is removed first. Neither links nor other names of a file are followed
    // or emptied.
    static Result<FileOutput> createStaged(const std::string& target, const std::string& staging);

    FileOutput(FileOutput&& other) noexcept;
    FileOutput& operator=(FileOutput&&) = delete;
    ~FileOutput();

    // All bytes, or an error; a short write is an error (the disk is full, or a limit is reached).
    Result<void> write(std::span<const std::uint8_t> bytes);
    // Ends the writing: syncs the data and gives up the right to write, because a program cannot be
    // run while somebody has it open for that. Until publish() the descriptor is good for nothing
    // else.
    Result<void> finishWriting();
    // Syncs the data if that is not done, then renames. The folder is not synced: after a power failure the old content
    // may be back.
    Result<void> publish();

    int descriptor() const { return file_.get(); }
    UniqueFd takeDescriptor() { return std::move(file_); }

private:
    FileOutput(std::string target, std::string staging);

    bool createNamed(mode_t mode);  // errno says why not
    Result<void> giveName();
    Result<void> sync();

    std::string target_;
    std::string staging_;  // the name that it has, or will have before the rename
    UniqueFd file_;
    bool isNamed_ = false;
    bool isSynced_ = false;
};

}  // namespace utilia::platform
