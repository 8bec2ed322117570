#include "Common/Platform/FileHandle.h"

#include <cerrno>

#include <unistd.h>

namespace utilia::platform {

Result<std::size_t> FileHandle::read(std::span<char> buffer) {
    ssize_t count;
    do {
        count = ::read(file_.get(), buffer.data(), buffer.size());
    } while (count < 0 && errno == EINTR);
    if (count < 0) return Error::posix(errno, "read", "an open file");
    return static_cast<std::size_t>(count);
}

}  // namespace utilia::platform
