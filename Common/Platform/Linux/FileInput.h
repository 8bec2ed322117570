#pragma once

#include <cstddef>
#include <string>

#include <sys/stat.h>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform {

// Files as they are read here: an open that never waits for a FIFO's other end, and only regular
// files of a bounded size. A folder is EISDIR, everything else that is no regular file EACCES, a
// file that is too large EFBIG.
class FileInput final {
public:
    enum class Links { Follow, Refuse };

    static Result<FileInput> open(const std::string& path, Links links);
    static Result<Data> contents(const std::string& path, std::size_t maximumSize);

    const struct stat& status() const { return status_; }
    Result<Data> readAll(std::size_t maximumSize);
    UniqueFd takeDescriptor() { return std::move(file_); }

private:
    FileInput(std::string path, UniqueFd file) : path_(std::move(path)), file_(std::move(file)) {}

    std::string path_;
    UniqueFd file_;
    struct stat status_ {};
};

}  // namespace utilia::platform
