#include "Common/Platform/Thread.h"

#include <csignal>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include <pthread.h>

#include "Common/Logging/CallbackGuard.h"
#include "Common/Platform/Linux/OutOfMemory.h"

namespace utilia::platform {

Result<void> Thread::detachNewThread(const std::string& name, std::function<void()> work) {
    return orOutOfMemory("start thread", name, [&]() -> Result<void> {
        auto body = std::make_unique<std::function<void()>>(std::move(work));
        // A new thread inherits the mask of its maker.
        sigset_t every;
        sigset_t before;
        sigfillset(&every);
        pthread_sigmask(SIG_SETMASK, &every, &before);
        Result<void> started;
        try {
            std::thread([name, body = std::move(body)] {
                pthread_setname_np(pthread_self(), name.c_str());
                runGuarded("A thread", *body);
            }).detach();
        } catch (const std::system_error& error) {
            started = Error::posix(error.code().value(), "start thread", name);
        } catch (...) {
            pthread_sigmask(SIG_SETMASK, &before, nullptr);
            throw;
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        return started;
    });
}

}  // namespace utilia::platform
