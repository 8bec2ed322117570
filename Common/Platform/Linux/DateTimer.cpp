#include "Common/Platform/DateTimer.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <memory>
#include <utility>

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "Common/Foundation/Rounding.h"
#include "Common/Logging/CallbackGuard.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/Linux/RunLoopImplementation.h"
#include "Common/Platform/RunLoop.h"

// A timerfd on the wall clock follows every change of that clock by itself. It is asked to tell of changes all the same
// (TFD_TIMER_CANCEL_ON_SET), because kernels differ in when a timer notices that its time was jumped over.

namespace utilia::platform {
namespace {

constexpr std::chrono::seconds kLookInterval{30};
// What fits a timer, with room to spare: about the year 36812.
constexpr double kLatest = 1.1e12;
// Seconds: a date has fractions that a timer cannot hold, and the timer shall not be early.
constexpr double kMargin = 1e-6;

void reportOnce(const Error& error) {
    static std::atomic<bool> isReported = false;
    if (isReported.exchange(true)) return;
    KULogVariadic("A date is looked at twice a minute: %@", error);
}

class DateWatch final : public LoopWatcher, public std::enable_shared_from_this<DateWatch> {
public:
    DateWatch(Date date, std::function<void()> fire) : date_(date), fire_(std::move(fire)) {}
    ~DateWatch() { end(); }
    DateWatch(const DateWatch&) = delete;
    DateWatch& operator=(const DateWatch&) = delete;

    void start() {
        if (std::isnan(date_.secondsSinceReferenceDate)) return;
        watches_ = currentLoopWatches();
        if (const auto watched = watchDescriptor(); !watched) {
            reportOnce(watched.error());
            look_ = Timer::scheduledTimer(kLookInterval, true, [this] { fireWhenReached(); });
            first_ = Timer::scheduledTimer(std::chrono::nanoseconds(0), false,
                                           [this] { fireWhenReached(); });
        }
    }

    void end() {
        if (const auto watches = watches_.lock(); watches && watch_ != 0) watches->remove(watch_);
        watch_ = 0;
        descriptor_.reset();
        look_.reset();
        first_.reset();
        if (!isFiring_) fire_ = nullptr;
    }

    void descriptorIsReady(std::uint32_t) override {
        std::uint64_t expirations = 0;
        // ECANCELED: the clock was set.
        if (read(descriptor_.get(), &expirations, sizeof expirations) < 0 && errno == EAGAIN)
            return;
        if (!fireWhenReached()) arm();
    }

private:
    Result<void> watchDescriptor() {
        UniqueFd descriptor(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK));
        if (!descriptor) return Error::posix(errno, "timerfd_create", "date");
        descriptor_ = std::move(descriptor);
        arm();
        const auto watches = watches_.lock();
        if (!watches) return {};
        auto watch = watches->add(descriptor_.get(), EPOLLIN, *this);
        if (!watch) {
            descriptor_.reset();
            return std::move(watch).error();
        }
        watch_ = *watch;
        return {};
    }

    void arm() {
        // Zero would disarm the timer.
        const double when = std::clamp(date_.unixTime() + kMargin, 1e-3, kLatest);
        itimerspec time{};
        time.it_value.tv_sec = static_cast<time_t>(when);
        time.it_value.tv_nsec = static_cast<long>((when - roundedDown(when)) * 1e9);
        timerfd_settime(descriptor_.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &time,
                        nullptr);
    }

    bool fireWhenReached() {
        if (Date::now() < date_) return false;
        const auto self = shared_from_this();
        isFiring_ = true;
        const auto fire = fire_;
        end();
        runGuarded("A date timer", fire);
        isFiring_ = false;
        fire_ = nullptr;
        return true;
    }

    const Date date_;
    std::function<void()> fire_;
    bool isFiring_ = false;
    std::weak_ptr<LoopWatches> watches_;
    LoopWatches::Id watch_ = 0;
    UniqueFd descriptor_;
    Handle look_;
    Handle first_;
};

}  // namespace

Handle DateTimer::scheduledTimer(Date date, std::function<void()> fire) {
    auto timer = std::make_shared<DateWatch>(date, std::move(fire));
    timer->start();
    return Handle([timer] { timer->end(); });
}

}  // namespace utilia::platform
