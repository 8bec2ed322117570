#include <chrono>

#include "Common/Platform/RunLoop.h"
#include "Tests/Unit/Reporting/FakeClock.h"

// The same expectations for the system's clock and for the one that stands in for it, so that tests
// with the one say something about the other.

namespace utilia {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

struct SystemClockAtWork {
    std::shared_ptr<CEPClock> clock = CEPClock::system();
    nanoseconds now() const { return std::chrono::steady_clock::now().time_since_epoch(); }
    // Until the timers have done what is expected.
    bool runUntil(const std::function<bool()>& done) const {
        return platform::RunLoop::currentRunLoop().runUntil(done, 60s);
    }
    void run(nanoseconds time) const { platform::RunLoop::currentRunLoop().runFor(time); }
    void spend(nanoseconds time) const {
        for (const auto end = now() + time; now() < end;) {
        }
    }
};

struct FakeClockAtWork {
    std::shared_ptr<test::FakeClock> clock = std::make_shared<test::FakeClock>(Date{700'000'000});
    nanoseconds now() const { return clock->monotonicTime(); }
    bool runUntil(const std::function<bool()>& done) const {
        for (int turn = 0; turn < 20'000 && !done(); ++turn) clock->run(1ms);
        return done();
    }
    void run(nanoseconds time) const { clock->run(time); }
    void spend(nanoseconds time) const { clock->spend(time); }
};

template <class Clock>
class ReportingClock : public testing::Test {
protected:
    const Clock at_{};
};

using Clocks = testing::Types<SystemClockAtWork, FakeClockAtWork>;
TYPED_TEST_SUITE(ReportingClock, Clocks);

TYPED_TEST(ReportingClock, FirstFiresAfterTheDelayAndThenAfterTheInterval) {
    std::vector<nanoseconds> fired;
    const nanoseconds start = this->at_.now();
    const Handle timer = this->at_.clock->repeatingTimer(
        10ms, 30ms, [&] { fired.push_back(this->at_.now() - start); });
    EXPECT_TRUE(fired.empty());
    ASSERT_TRUE(this->at_.runUntil([&] { return fired.size() == 3; }));
    EXPECT_GE(fired[0], 10ms);
    EXPECT_GE(fired[1], 40ms);
    EXPECT_GE(fired[2], 70ms);
}

TYPED_TEST(ReportingClock, CollapsesWhatWasMissedAndKeepsThePhase) {
    std::vector<nanoseconds> fired;
    const nanoseconds start = this->at_.now();
    const Handle timer = this->at_.clock->repeatingTimer(20ms, 40ms, [&] {
        fired.push_back(this->at_.now() - start);
        if (fired.size() == 1) this->at_.spend(100ms);  // past 60 ms and 100 ms
    });
    ASSERT_TRUE(this->at_.runUntil([&] { return fired.size() == 2; }));
    EXPECT_GE(fired[1], 140ms);
}

TYPED_TEST(ReportingClock, FiresNoMoreAfterTheEndOfTheHandle) {
    int fired = 0;
    Handle timer = this->at_.clock->repeatingTimer(0ms, 1ms, [&] { ++fired; });
    ASSERT_TRUE(this->at_.runUntil([&] { return fired > 0; }));
    timer.reset();
    const int before = fired;
    this->at_.run(10ms);
    EXPECT_EQ(fired, before);
}

TYPED_TEST(ReportingClock, MayBeEndedInItsOwnCallback) {
    int fired = 0;
    Handle timer;
    timer = this->at_.clock->repeatingTimer(0ms, 1ms, [&] {
        ++fired;
        timer.reset();
    });
    ASSERT_TRUE(this->at_.runUntil([&] { return fired == 1; }));
    this->at_.run(10ms);
    EXPECT_EQ(fired, 1);
}

TEST(FakeClock, TellsSleepFromTimeAwakeAndNeitherFromTheWallClock) {
    test::FakeClock clock(Date{1000});
    const auto boot = clock.bootTime();
    const auto monotonic = clock.monotonicTime();
    clock.run(10s);
    clock.sleep(100s);
    clock.setWallClock(Date{5});
    EXPECT_EQ(clock.bootTime() - boot, 110s);
    EXPECT_EQ(clock.monotonicTime() - monotonic, 10s);
    EXPECT_EQ(clock.now(), Date{5});
}

}  // namespace
}  // namespace utilia
