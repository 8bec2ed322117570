#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <utility>

#include <glib.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include "Common/Logging/CallbackGuard.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/Linux/RunLoopImplementation.h"
#include "Common/Platform/Linux/TimerPhase.h"
#include "Common/Platform/RunLoop.h"

// A timer is a timerfd on the clock that goes on while the machine sleeps, armed for one absolute
// time and armed again after its callback has returned; so a callback that runs the loop is never
// entered twice.
//
// A process that has no descriptor left still gets a timer: a GLib source with a ready time, which
// does not count the time asleep. That is better than a scheduled deed that silently never happens.

namespace utilia::platform {
namespace {

using std::chrono::nanoseconds;

constexpr nanoseconds kShortestInterval = std::chrono::microseconds(100);
constexpr nanoseconds kLongestInterval = std::chrono::hours(24 * 365 * 100);

nanoseconds bootTime() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}

// A process that is short of descriptors is so for many timers.
void reportOnce(const Error& error) {
    static std::atomic<bool> isReported = false;
    if (isReported.exchange(true)) return;
    KULogVariadic("A timer does not count the time asleep: %@", error);
}

class TimerWatch final : public LoopWatcher, public std::enable_shared_from_this<TimerWatch> {
public:
    TimerWatch(nanoseconds interval, bool repeats, std::function<void()> fire)
        : interval_(interval), repeats_(repeats), fire_(std::move(fire)) {}
    ~TimerWatch() { end(); }
    TimerWatch(const TimerWatch&) = delete;
    TimerWatch& operator=(const TimerWatch&) = delete;

    void start(RunLoop::Implementation& loop, nanoseconds delay) {
        watches_ = loop.watches;
        planned_ = bootTime() + delay;
        if (auto watched = watchDescriptor(*loop.watches); !watched) {
            reportOnce(watched.error());
            watchReadyTime(loop.context);
        }
        arm();
    }

    // Ends the timer; the callback object goes when it is not running.
    void end() {
        isActive_ = false;
        if (const auto watches = watches_.lock(); watches && watch_ != 0) watches->remove(watch_);
        watch_ = 0;
        descriptor_.reset();
        if (source_) {
            g_source_destroy(source_);
            g_source_unref(source_);
            source_ = nullptr;
        }
        if (!isFiring_) fire_ = nullptr;
    }

    void descriptorIsReady(std::uint32_t) override {
        std::uint64_t expirations = 0;
        if (read(descriptor_.get(), &expirations, sizeof expirations) != sizeof expirations) return;
        fireOnce();
    }

private:
    struct Source {
        GSource base;
        TimerWatch* timer;
    };

    Result<void> watchDescriptor(LoopWatches& watches) {
        UniqueFd descriptor(timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC | TFD_NONBLOCK));
        if (!descriptor) return Error::posix(errno, "timerfd_create", "timer");
        auto watch = watches.add(descriptor.get(), EPOLLIN, *this);
        if (!watch) return std::move(watch).error();
        descriptor_ = std::move(descriptor);
        watch_ = *watch;
        return {};
    }

    void watchReadyTime(GMainContext* context) {
        static GSourceFuncs functions = {nullptr, nullptr, &TimerWatch::dispatchSource,
                                         nullptr, nullptr, nullptr};
        source_ = g_source_new(&functions, sizeof(Source));
        reinterpret_cast<Source*>(source_)->timer = this;
        g_source_set_can_recurse(source_, TRUE);
        g_source_attach(source_, context);
    }

    static gboolean dispatchSource(GSource* source, GSourceFunc, gpointer) {
        g_source_set_ready_time(source, -1);
        TimerWatch* const timer = reinterpret_cast<Source*>(source)->timer;
        timer->fireOnce();
        return G_SOURCE_CONTINUE;
    }

    void arm() {
        if (source_) {
            const auto left = std::chrono::ceil<std::chrono::microseconds>(planned_ - bootTime());
            g_source_set_ready_time(source_,
                                    g_get_monotonic_time() + std::max<gint64>(left.count(), 0));
            return;
        }
        itimerspec when{};
        const auto seconds = std::chrono::floor<std::chrono::seconds>(planned_);
        when.it_value.tv_sec = seconds.count();
        when.it_value.tv_nsec = (planned_ - seconds).count();
        timerfd_settime(descriptor_.get(), TFD_TIMER_ABSTIME, &when, nullptr);
    }

    void fireOnce() {
        const auto self = shared_from_this();
        isFiring_ = true;
        runGuarded("A timer", fire_);
        isFiring_ = false;
        if (!isActive_) {
            fire_ = nullptr;
        } else if (!repeats_) {
            end();
        } else {
            planned_ = nextFireTime(planned_, interval_, bootTime());
            arm();
        }
    }

    const nanoseconds interval_;
    const bool repeats_;
    std::function<void()> fire_;
    nanoseconds planned_{};
    bool isActive_ = true;
    bool isFiring_ = false;
    std::weak_ptr<LoopWatches> watches_;
    LoopWatches::Id watch_ = 0;
    UniqueFd descriptor_;
    GSource* source_ = nullptr;
};

Handle start(nanoseconds delay, nanoseconds interval, bool repeats, std::function<void()> fire) {
    auto timer = std::make_shared<TimerWatch>(std::min(interval, kLongestInterval), repeats,
                                              std::move(fire));
    timer->start(RunLoop::currentRunLoop().implementation(), std::min(delay, kLongestInterval));
    return Handle([timer] { timer->end(); });
}

}  // namespace

Handle Timer::scheduledTimer(nanoseconds interval, bool repeats, std::function<void()> fire) {
    if (interval <= nanoseconds(0)) interval = kShortestInterval;
    return start(interval, interval, repeats, std::move(fire));
}

Handle Timer::repeatingTimer(nanoseconds delay, nanoseconds interval, std::function<void()> fire) {
    if (interval <= nanoseconds(0)) interval = kShortestInterval;
    return start(std::max(delay, nanoseconds(0)), interval, true, std::move(fire));
}

}  // namespace utilia::platform
