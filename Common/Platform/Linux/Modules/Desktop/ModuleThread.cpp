#include "Common/Platform/Linux/Modules/Desktop/ModuleThread.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace utilia::platform::desktop {

int startThread(const char* name, std::function<void()> run) {
    // A new thread inherits the mask of its maker.
    sigset_t every;
    sigset_t before;
    sigfillset(&every);
    pthread_sigmask(SIG_SETMASK, &every, &before);
    int error = 0;
    try {
        std::thread([name, run = std::move(run)] {
            pthread_setname_np(pthread_self(), name);
            run();
        }).detach();
    } catch (const std::system_error& thrown) {
        error = thrown.code().value();
    } catch (const std::bad_alloc&) {
        error = ENOMEM;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error;
}

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
