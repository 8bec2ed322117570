#include "Common/Platform/DateTimer.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "Common/Platform/RunLoop.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Ports/PortTestSupport.h"

namespace utilia::platform {
namespace {

using namespace std::chrono_literals;

Date inSeconds(double seconds) { return {Date::now().secondsSinceReferenceDate + seconds}; }

TEST(DateTimer, FiresOnceAndNotBeforeItsDate) {
    const Date date = inSeconds(0.05);
    std::vector<Date> fired;
    const Handle timer = DateTimer::scheduledTimer(date, [&] { fired.push_back(Date::now()); });
    ASSERT_TRUE(RunLoop::currentRunLoop().runUntil([&] { return !fired.empty(); }, 60s));
    EXPECT_GE(fired[0], date);
    RunLoop::currentRunLoop().runFor(20ms);
    EXPECT_EQ(fired.size(), 1u);
}

TEST(DateTimer, TakesADateThatIsOverInTheNextTurn) {
    for (const double past : {-1.0, -1e9, -1e300, -std::numeric_limits<double>::infinity()}) {
        bool fired = false;
        const Handle timer = DateTimer::scheduledTimer(inSeconds(past), [&] { fired = true; });
        EXPECT_FALSE(fired) << "never inside the call";
        EXPECT_TRUE(RunLoop::currentRunLoop().runUntil([&] { return fired; }, 60s)) << past;
    }
}

TEST(DateTimer, NeverReachesADateBeyondAllClocks) {
    for (const double far : {1e12, 1e300, std::numeric_limits<double>::infinity(),
                             std::numeric_limits<double>::quiet_NaN()}) {
        bool fired = false;
        const Handle timer = DateTimer::scheduledTimer(inSeconds(far), [&] { fired = true; });
        RunLoop::currentRunLoop().runFor(10ms);
        EXPECT_FALSE(fired) << far;
    }
}

TEST(DateTimer, DoesNotFireAfterItsHandleEnded) {
    bool fired = false;
    Handle timer = DateTimer::scheduledTimer(inSeconds(-1), [&] { fired = true; });
    timer.reset();
    RunLoop::currentRunLoop().runFor(10ms);
    EXPECT_FALSE(fired);
}

TEST(DateTimer, MayBeEndedInItsOwnCallback) {
    Handle timer;
    bool fired = false;
    timer = DateTimer::scheduledTimer(inSeconds(-1), [&] {
        timer.reset();
        fired = true;
    });
    EXPECT_TRUE(RunLoop::currentRunLoop().runUntil([&] { return fired; }, 60s));
}

TEST(DateTimer, FiresInAProcessThatHasNoDescriptorLeft) {
    const test::TestLog log;
    bool fired = false;
    Handle timer;
    RunLoop::currentRunLoop().runFor(0ms);  // makes the loop, which needs descriptors
    const std::size_t descriptors = test::openDescriptorCount();
    {
        const test::NoDescriptorsLeft none;
        timer = DateTimer::scheduledTimer(inSeconds(-1), [&] { fired = true; });
    }
    // What looks at the clock may itself be a timer without a descriptor.
    EXPECT_EQ(test::openDescriptorCount(), descriptors);
    EXPECT_TRUE(RunLoop::currentRunLoop().runUntil([&] { return fired; }, 60s));
    timer.reset();
}

}  // namespace
}  // namespace utilia::platform
