#include "Common/Platform/Linux/Modules/Desktop/ModuleThread.h"

#include <array>
#include <cerrno>

#include <sys/eventfd.h>
#include <unistd.h>

namespace utilia::platform::desktop {

int descriptorsMissing() {
    std::array<int, 6> reserve;
    int error = 0;
    for (int& each : reserve) {
        each = eventfd(0, EFD_CLOEXEC);
        if (each < 0) error = errno;
    }
    for (const int each : reserve) {
        if (each >= 0) close(each);
    }
    return error;
}

}  // namespace utilia::platform::desktop
