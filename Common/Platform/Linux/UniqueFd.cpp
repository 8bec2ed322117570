#include "Common/Platform/UniqueFd.h"

#include <cerrno>

#include <unistd.h>

namespace utilia::platform {

void UniqueFd::reset(int descriptor) {
    const int old = std::exchange(descriptor_, descriptor);
    if (old < 0) return;
    const int keptErrno = errno;
    // After EINTR the descriptor is closed all the same on Linux.
    close(old);
    errno = keptErrno;
}

}  // namespace utilia::platform
