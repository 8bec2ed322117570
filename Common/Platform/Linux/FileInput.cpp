#include "Common/Platform/Linux/FileInput.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace utilia::platform {

Result<FileInput> FileInput::open(const std::string& path, Links links) {
    const int flags =
        O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (links == Links::Refuse ? O_NOFOLLOW : 0);
    int descriptor;
    do {
        descriptor = ::open(path.c_str(), flags);
    } while (descriptor < 0 && errno == EINTR);
    // A socket cannot be opened at all.
    if (descriptor < 0) return Error::posix(errno == ENXIO ? EACCES : errno, "open", path);
    FileInput input(path, UniqueFd(descriptor));
    if (fstat(descriptor, &input.status_) != 0) return Error::posix(errno, "stat", path);
    if (S_ISDIR(input.status_.st_mode)) return Error::posix(EISDIR, "read", path);
    if (!S_ISREG(input.status_.st_mode)) return Error::posix(EACCES, "read", path);
    return input;
}

Result<Data> FileInput::contents(const std::string& path, std::size_t maximumSize) {
    auto input = open(path, Links::Follow);
    if (!input) return std::move(input).error();
    return input->readAll(maximumSize);
}

Result<Data> FileInput::readAll(std::size_t maximumSize) {
    if (static_cast<std::uint64_t>(status_.st_size) > maximumSize)
        return Error::posix(EFBIG, "read", path_);
    Data bytes(static_cast<std::size_t>(status_.st_size));
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t n = read(file_.get(), bytes.data() + filled, bytes.size() - filled);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return Error::posix(errno, "read", path_);
        if (n == 0) break;
        filled += static_cast<std::size_t>(n);
    }
    bytes.resize(filled);
    return bytes;
}

}  // namespace utilia::platform
