#include "Common/Platform/Linux/Modules/ServiceThread.h"

#include <cerrno>
#include <csignal>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include <pthread.h>

namespace utilia::platform {

int startServiceThread(const char* name, std::function<void()> run) noexcept {
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

}  // namespace utilia::platform
