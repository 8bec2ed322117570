#pragma once

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "Common/Platform/Linux/TimerPhase.h"
#include "Common/UtiliaCommon/CEP/CEPClock.h"

namespace utilia::test {

// Three clocks that a test moves: the wall clock, which is also set, boot time, which goes on while
// the machine sleeps, and monotonic time, which does not. Timers run on boot time.
//
// Threads: one.
class FakeClock final : public CEPClock {
public:
    using Time = std::chrono::nanoseconds;

    explicit FakeClock(Date wall) : wall_(wall) {}

    Date now() const override { return wall_; }
    Handle repeatingTimer(Time delay, Time interval, std::function<void()> fire) override {
        auto timer = std::make_shared<Timer>();
        timer->planned = boot_ + std::max(delay, Time(0));
        timer->interval = interval;
        timer->fire = std::move(fire);
        timers_.push_back(timer);
        return Handle([timer] { timer->isActive = false; });
    }

    Time bootTime() const { return boot_; }
    Time monotonicTime() const { return monotonic_; }
    void setWallClock(Date wall) { wall_ = wall; }

    // Time goes by; what is due fires at its time.
    void run(Time time) {
        const Time end = boot_ + time;
        while (const auto next = nextDue(end)) {
            const Time step = std::max(next->planned - boot_, Time(0));
            pass(step);
            monotonic_ += step;
            fire(*next);
        }
        monotonic_ += end - boot_;
        pass(end - boot_);
    }
    // The machine sleeps. What was due fires when it has woken up, once.
    void sleep(Time time) {
        pass(time);
        run(Time(0));
    }
    // Inside of a callback: time goes by and nothing fires.
    void spend(Time time) {
        pass(time);
        monotonic_ += time;
    }

private:
    struct Timer {
        Time planned{};
        Time interval{};
        std::function<void()> fire;
        bool isActive = true;
    };

    void pass(Time time) {
        boot_ += time;
        wall_.secondsSinceReferenceDate += std::chrono::duration<double>(time).count();
    }
    std::shared_ptr<Timer> nextDue(Time end) {
        std::erase_if(timers_, [](const auto& timer) { return !timer->isActive; });
        const auto first =
            std::min_element(timers_.begin(), timers_.end(),
                             [](const auto& a, const auto& b) { return a->planned < b->planned; });
        return first != timers_.end() && (*first)->planned <= end ? *first : nullptr;
    }
    void fire(Timer& timer) {
        timer.fire();
        timer.planned = platform::nextFireTime(timer.planned, timer.interval, boot_);
    }

    Date wall_;
    Time boot_{std::chrono::hours(1000)};
    Time monotonic_{std::chrono::hours(100)};
    std::vector<std::shared_ptr<Timer>> timers_;
};

}  // namespace utilia::test
