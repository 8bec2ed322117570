// The calls by which a process knows the wall clock, answered with another one (Tests/Support/SetClock.h). A machine has one
// such clock, which no namespace of the kernel can hide from a test.

#include "Tests/Support/SetClock.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <mutex>

#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

namespace {

using std::int64_t;

constexpr int64_t kSecond = 1'000'000'000;

// A timer on the wall clock.
struct WallTimer {
    int descriptor = -1;
    int64_t time = 0;  // when it is due by our clock, in nanoseconds; 0: not armed
    bool isToBeTold = false;
    bool isTold = false;  // the next read says that the clock was set
};

std::mutex mutex;
int64_t offset = 0;
std::array<WallTimer, 32> timers;

WallTimer* find(int descriptor) {
    for (WallTimer& timer : timers) {
        if (timer.descriptor == descriptor) return &timer;
    }
    return nullptr;
}

int64_t nanoseconds(const timespec& time) { return time.tv_sec * kSecond + time.tv_nsec; }
timespec fromNanoseconds(int64_t time) { return {time / kSecond, time % kSecond}; }

// The kernel's timer, by the kernel's clock.
int arm(const WallTimer& timer) {
    itimerspec value{};
    if (timer.time != 0) {
        const int64_t due = timer.time - offset;
        value.it_value = fromNanoseconds(due > 0 ? due : 1);
    }
    return static_cast<int>(
        syscall(SYS_timerfd_settime, timer.descriptor, TFD_TIMER_ABSTIME, &value, nullptr));
}

void makeReady(const WallTimer& timer) {
    itimerspec value{};
    value.it_value.tv_nsec = 1;
    syscall(SYS_timerfd_settime, timer.descriptor, 0, &value, nullptr);
}

}  // namespace

namespace utilia::test {

void setClock(double secondsOff) {
    const std::lock_guard guard(mutex);
    offset = std::llround(secondsOff * static_cast<double>(kSecond));
    for (WallTimer& timer : timers) {
        if (timer.descriptor < 0 || timer.time == 0) continue;
        timer.isTold = timer.isToBeTold;
        timer.isTold ? makeReady(timer) : void(arm(timer));
    }
}

}  // namespace utilia::test

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const int result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    if (result == 0 && clock == CLOCK_REALTIME) {
        const std::lock_guard guard(mutex);
        *time = fromNanoseconds(nanoseconds(*time) + offset);
    }
    return result;
}

int timerfd_create(int clock, int flags) noexcept {
    const int descriptor = static_cast<int>(syscall(SYS_timerfd_create, clock, flags));
    const std::lock_guard guard(mutex);
    if (descriptor < 0 || clock != CLOCK_REALTIME) return descriptor;
    if (WallTimer* const free = find(-1)) *free = {.descriptor = descriptor};
    return descriptor;
}

int timerfd_settime(int descriptor, int flags, const itimerspec* value, itimerspec* old) noexcept {
    const std::lock_guard guard(mutex);
    WallTimer* const timer = (flags & TFD_TIMER_ABSTIME) != 0 ? find(descriptor) : nullptr;
    if (!timer)
        return static_cast<int>(syscall(SYS_timerfd_settime, descriptor, flags, value, old));
    timer->time = nanoseconds(value->it_value);
    timer->isToBeTold = (flags & TFD_TIMER_CANCEL_ON_SET) != 0;
    timer->isTold = false;
    return arm(*timer);
}

ssize_t read(int descriptor, void* bytes, size_t count) {
    const ssize_t length = syscall(SYS_read, descriptor, bytes, count);
    const int error = errno;
    {
        const std::lock_guard guard(mutex);
        WallTimer* const timer = descriptor >= 0 ? find(descriptor) : nullptr;
        if (timer && timer->isTold) {
            timer->isTold = false;
            errno = ECANCELED;
            return -1;
        }
    }
    errno = error;
    return length;
}

int close(int descriptor) {
    {
        const std::lock_guard guard(mutex);
        if (WallTimer* const timer = descriptor >= 0 ? find(descriptor) : nullptr) *timer = {};
    }
    return static_cast<int>(syscall(SYS_close, descriptor));
}
}
