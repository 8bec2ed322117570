#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <glib-unix.h>
#include <glib.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "Common/Platform/Linux/TimerPhase.h"
#include "Common/Platform/RunLoop.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Ports/PortTestSupport.h"

namespace utilia::platform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kLong = 60s;

TEST(RunLoop, RunsWorkInItsNextTurnAndInOrder) {
    RunLoop& loop = RunLoop::currentRunLoop();
    std::vector<int> order;
    loop.perform([&] { order.push_back(1); });
    loop.perform([&] { order.push_back(2); });
    EXPECT_TRUE(order.empty());
    loop.runFor(0ns);
    EXPECT_EQ(order, (std::vector{1, 2}));
}

TEST(RunLoop, LeavesWorkThatWorkAddsToTheTurnAfter) {
    RunLoop& loop = RunLoop::currentRunLoop();
    std::vector<int> order;
    loop.perform([&] {
        loop.perform([&] { order.push_back(2); });
        order.push_back(1);
    });
    loop.runFor(0ns);
    EXPECT_EQ(order, (std::vector{1}));
    loop.runFor(0ns);
    EXPECT_EQ(order, (std::vector{1, 2}));
}

TEST(RunLoop, ServesItsWorkInANestedRun) {
    RunLoop& loop = RunLoop::currentRunLoop();
    bool inner = false;
    bool seenInside = false;
    loop.perform([&] { seenInside = loop.runUntil([&] { return inner; }, kLong); });
    loop.perform([&] { inner = true; });
    loop.runFor(0ns);
    EXPECT_TRUE(seenInside);
}

TEST(RunLoop, EndsTheInnermostRunOnly) {
    RunLoop& loop = RunLoop::currentRunLoop();
    std::vector<std::string> order;
    loop.perform([&] {
        loop.perform([&] { loop.stop(); });
        loop.run();
        order.push_back("inner ended");
        loop.perform([&] {
            order.push_back("outer goes on");
            loop.stop();
        });
    });
    loop.run();
    EXPECT_EQ(order, (std::vector<std::string>{"inner ended", "outer goes on"}));
}

TEST(RunLoop, EndsARunThatBeginsAfterTheStopAfterOneTurn) {
    RunLoop& loop = RunLoop::currentRunLoop();
    loop.stop();
    loop.stop();
    int turns = 0;
    loop.perform([&] { ++turns; });
    loop.run();
    EXPECT_EQ(turns, 1);
    // Both stops are spent: the next run goes on until its time is over.
    bool late = false;
    const Handle timer = Timer::scheduledTimer(1ms, false, [&] { late = true; });
    EXPECT_TRUE(loop.runUntil([&] { return late; }, kLong));
}

TEST(RunLoop, StopsARunEvenWhenAnotherLoopHasTakenItsWakeUp) {
    RunLoop& loop = RunLoop::currentRunLoop();
    loop.stop();
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    loop.run();
    SUCCEED() << "the run ended";
}

TEST(RunLoop, IsStoppedFromAnotherThread) {
    RunLoop& loop = RunLoop::currentRunLoop();
    std::thread other([&] { loop.stop(); });
    loop.run();
    other.join();
}

TEST(RunLoop, KeepsTheOrderOfEachThreadsWork) {
    RunLoop& loop = RunLoop::currentRunLoop();
    constexpr int kCount = 2000;
    std::array<std::vector<int>, 4> seen;
    std::vector<std::thread> threads;
    for (auto& list : seen) {
        threads.emplace_back([&loop, &list] {
            for (int i = 0; i < kCount; ++i) loop.perform([&list, i] { list.push_back(i); });
        });
    }
    const bool all = loop.runUntil(
        [&] {
            for (const auto& list : seen) {
                if (list.size() < kCount) return false;
            }
            return true;
        },
        kLong);
    for (auto& thread : threads) thread.join();
    ASSERT_TRUE(all);
    for (const auto& list : seen) EXPECT_TRUE(std::is_sorted(list.begin(), list.end()));
}

TEST(RunLoop, GivesEachThreadItsOwn) {
    RunLoop& mine = RunLoop::currentRunLoop();
    EXPECT_EQ(&mine, &RunLoop::mainRunLoop());
    std::atomic<RunLoop*> theirs = nullptr;
    std::thread::id ranOn;
    std::thread other([&] {
        RunLoop& loop = RunLoop::currentRunLoop();
        theirs = &loop;
        loop.run();
    });
    while (!theirs) std::this_thread::yield();
    RunLoop& loop = *theirs;
    loop.perform([&] { ranOn = std::this_thread::get_id(); });
    loop.perform([&] { loop.stop(); });
    const std::thread::id otherId = other.get_id();
    other.join();
    EXPECT_NE(&mine, &loop);
    EXPECT_EQ(ranOn, otherId);
}

TEST(RunLoop, SurvivesCallbacksThatThrow) {
    const test::TestLog log;
    RunLoop& loop = RunLoop::currentRunLoop();
    bool later = false;
    loop.perform([] { throw std::runtime_error("broken"); });
    loop.perform([] { throw 7; });
    const Handle timer =
        Timer::scheduledTimer(1ms, false, [] { throw std::runtime_error("late"); });
    loop.perform([&] { later = true; });
    loop.runFor(0ns);
    EXPECT_TRUE(later);
    EXPECT_TRUE(loop.runUntil([&] { return log.lines().size() == 3; }, kLong));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"Work for a run loop threw: broken",
                                        "Work for a run loop threw something that is no exception",
                                        "A timer threw: late"}));
}

TEST(RunLoop, EndsWithItsTime) {
    RunLoop& loop = RunLoop::currentRunLoop();
    const auto before = Clock::now();
    loop.runFor(30ms);
    EXPECT_GE(Clock::now() - before, 30ms);
    EXPECT_FALSE(loop.runUntil([] { return false; }, 5ms));
}

// What a host has in the loop besides ours: a descriptor in a source of its own.
class HostSource final {
public:
    explicit HostSource(GMainContext* context) {
        EXPECT_EQ(pipe2(ends_.data(), O_CLOEXEC | O_NONBLOCK), 0);
        source_ = g_unix_fd_source_new(ends_[0], G_IO_IN);
        g_source_set_callback(source_,
                              reinterpret_cast<GSourceFunc>(reinterpret_cast<void (*)()>(&take)),
                              this, nullptr);
        g_source_attach(source_, context);
    }
    ~HostSource() {
        g_source_destroy(source_);
        g_source_unref(source_);
        for (const int end : ends_) close(end);
    }
    HostSource(const HostSource&) = delete;
    HostSource& operator=(const HostSource&) = delete;

    void write() { EXPECT_EQ(::write(ends_[1], "x", 1), 1); }
    int taken = 0;

private:
    static gboolean take(gint descriptor, GIOCondition, gpointer data) {
        char byte = 0;
        if (read(descriptor, &byte, 1) == 1) ++static_cast<HostSource*>(data)->taken;
        return G_SOURCE_CONTINUE;
    }
    std::array<int, 2> ends_{};
    GSource* source_ = nullptr;
};

int ticksWithin(RunLoop& loop, int wanted) {
    int ticks = 0;
    const Handle timer = Timer::scheduledTimer(1ms, true, [&] { ++ticks; });
    loop.runUntil([&] { return ticks >= wanted; }, kLong);
    return ticks;
}

TEST(RunLoop, ServesAHostsDescriptorsAlongWithItsOwn) {
    RunLoop& loop = RunLoop::currentRunLoop();
    EXPECT_GE(ticksWithin(loop, 3), 3);
    {
        HostSource host(g_main_context_default());
        host.write();
        EXPECT_TRUE(loop.runUntil([&] { return host.taken == 1; }, kLong));
        EXPECT_GE(ticksWithin(loop, 3), 3);
        std::thread other([&] {
            host.write();
            loop.perform([&] { host.write(); });
        });
        EXPECT_TRUE(loop.runUntil([&] { return host.taken == 3; }, kLong));
        other.join();
    }
    EXPECT_GE(ticksWithin(loop, 3), 3);
}

TEST(RunLoop, IsWokenWhileItWaits) {
    RunLoop& loop = RunLoop::currentRunLoop();
    EXPECT_GE(ticksWithin(loop, 1), 1);  // from here on there is something to watch
    for (int round = 0; round < 200; ++round) {
        bool isDone = false;
        std::thread other([&] { loop.perform([&] { isDone = true; }); });
        EXPECT_TRUE(loop.runUntil([&] { return isDone; }, kLong));
        other.join();
    }
}

int hostPolls = 0;

gint hostPoll(GPollFD* descriptors, guint count, gint timeout) {
    ++hostPolls;
    return g_poll(descriptors, count, timeout);
}

TEST(RunLoop, LeavesTheWaitingToAHostThatHasAWayOfItsOwn) {
    RunLoop& loop = RunLoop::currentRunLoop();
    EXPECT_GE(ticksWithin(loop, 1), 1);
    GMainContext* const context = g_main_context_default();
    const GPollFunc before = g_main_context_get_poll_func(context);
    g_main_context_set_poll_func(context, &hostPoll);
    hostPolls = 0;
    EXPECT_GE(ticksWithin(loop, 3), 3);
    EXPECT_GT(hostPolls, 0);
    g_main_context_set_poll_func(context, before);
}

TEST(RunLoop, GivesAThreadsContextBackAsItWas) {
    GMainContext* const context = g_main_context_new();
    std::thread([context] {
        g_main_context_push_thread_default(context);
        EXPECT_GE(ticksWithin(RunLoop::currentRunLoop(), 1), 1);
        EXPECT_NE(g_main_context_get_poll_func(context), &g_poll);
        g_main_context_pop_thread_default(context);
    }).join();
    EXPECT_EQ(g_main_context_get_poll_func(context), &g_poll);
    g_main_context_unref(context);
}

TEST(MainQueue, RunsOnTheMainThread) {
    std::thread::id ranOn;
    std::thread other([&] { MainQueue::async([&] { ranOn = std::this_thread::get_id(); }); });
    EXPECT_TRUE(RunLoop::mainRunLoop().runUntil([&] { return ranOn != std::thread::id(); }, kLong));
    other.join();
    EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(Timer, FollowsThePhaseVectors) {
    std::ifstream file(std::string(test::places::kTestData) + "/timer-phase.json");
    const auto data = nlohmann::json::parse(file);
    const auto time = [](const nlohmann::json& seconds) {
        return std::chrono::nanoseconds(std::llround(seconds.get<double>() * 1e9));
    };
    ASSERT_FALSE(data["vectors"].empty());
    for (const auto& vector : data["vectors"]) {
        const auto& input = vector["input"];
        EXPECT_EQ(nextFireTime(time(input["last_fire_date"]), time(input["interval"]),
                               time(input["callback_returned_at"])),
                  time(vector["expected"]))
            << vector["id"];
    }
}

TEST(Timer, NeverFiresBeforeItsTime) {
    const auto before = Clock::now();
    std::optional<Clock::time_point> fired;
    const Handle timer = Timer::scheduledTimer(20ms, false, [&] { fired = Clock::now(); });
    ASSERT_TRUE(RunLoop::currentRunLoop().runUntil([&] { return fired.has_value(); }, kLong));
    EXPECT_GE(*fired - before, 20ms);
}

TEST(Timer, KeepsItsPhaseAndCollapsesMissedFirings) {
    constexpr auto kInterval = 100ms;
    std::vector<Clock::duration> fired;
    Clock::duration end{};
    bool isPunctual = false;
    const auto start = Clock::now();
    const auto now = [start] { return Clock::now() - start; };
    const Handle timer = Timer::scheduledTimer(kInterval, true, [&] {
        fired.push_back(now());
        // A timer that counts anew from the end of its callback comes a whole interval after it. Other programs may
        // make a firing late, never early.
        isPunctual = isPunctual || (fired.size() > 1 && fired.back() - end < kInterval * 3 / 4 &&
                                    fired.back() % kInterval < kInterval / 4);
        // Busy until halfway to a later time, the first time past the second one.
        while ((fired.size() == 1 && now() < 2 * kInterval) || now() % kInterval < kInterval / 2) {
        }
        end = now();
    });
    EXPECT_TRUE(RunLoop::currentRunLoop().runUntil([&] { return fired.size() >= 6 && isPunctual; },
                                                   100 * kInterval))
        << "never punctual in " << fired.size() << " times";
    ASSERT_GE(fired.size(), 2u);
    EXPECT_GE(fired[0], kInterval);
    EXPECT_GE(fired[1], kInterval * 3) << "the second time is not made up for";
}

TEST(Timer, BeginsItsPhaseAfterADelayOfItsOwn) {
    std::vector<Clock::duration> fired;
    const auto start = Clock::now();
    const Handle timer =
        Timer::repeatingTimer(30ms, 100ms, [&] { fired.push_back(Clock::now() - start); });
    ASSERT_TRUE(RunLoop::currentRunLoop().runUntil([&] { return fired.size() == 2; }, kLong));
    EXPECT_GE(fired[0], 30ms);
    EXPECT_GE(fired[1], 130ms);
}

TEST(Timer, WithoutADelayFiresInTheNextTurnAndThenAfterItsInterval) {
    int fired = 0;
    const Handle timer = Timer::repeatingTimer(-1s, 1h, [&] { ++fired; });
    EXPECT_EQ(fired, 0) << "never inside of the call";
    EXPECT_TRUE(RunLoop::currentRunLoop().runUntil([&] { return fired == 1; }, kLong));
    RunLoop::currentRunLoop().runFor(10ms);
    EXPECT_EQ(fired, 1);
}

TEST(Timer, TakesAnIntervalOfNothingAsATenthOfAMillisecond) {
    int fired = 0;
    const Handle timer = Timer::scheduledTimer(-1s, true, [&] { ++fired; });
    EXPECT_TRUE(RunLoop::currentRunLoop().runUntil([&] { return fired >= 3; }, kLong));
}

TEST(Timer, MayBeEndedInItsOwnCallback) {
    int fired = 0;
    auto token = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = token;
    Handle timer;
    timer = Timer::scheduledTimer(1ms, true, [&, kept = std::move(token)] {
        ++fired;
        timer.reset();
        EXPECT_EQ(*kept, 0) << "what the callback holds stays until it returns";
    });
    EXPECT_TRUE(RunLoop::currentRunLoop().runUntil([&] { return fired > 0; }, kLong));
    RunLoop::currentRunLoop().runFor(20ms);
    EXPECT_EQ(fired, 1);
    EXPECT_TRUE(watched.expired());
}

TEST(Timer, IsNotEnteredAgainByARunInItsCallback) {
    int depth = 0;
    int deepest = 0;
    int fired = 0;
    const Handle timer = Timer::scheduledTimer(1ms, true, [&] {
        deepest = std::max(deepest, ++depth);
        ++fired;
        RunLoop::currentRunLoop().runFor(5ms);
        --depth;
    });
    ASSERT_TRUE(RunLoop::currentRunLoop().runUntil([&] { return fired >= 2; }, kLong));
    EXPECT_EQ(deepest, 1);
}

TEST(Timer, DoesNotFireAfterItsHandleEnded) {
    bool fired = false;
    Handle timer = Timer::scheduledTimer(1ms, true, [&] { fired = true; });
    timer.reset();
    timer.reset();
    RunLoop::currentRunLoop().runFor(10ms);
    EXPECT_FALSE(fired);
}

TEST(Timer, FiresInAProcessThatHasNoDescriptorLeft) {
    const test::TestLog log;
    int fired = 0;
    Handle timer;
    // GLib ends a process in which it cannot make a loop; a timer in a loop that exists is another matter.
    RunLoop::currentRunLoop().runFor(0ms);
    const std::size_t descriptors = test::openDescriptorCount();
    {
        const test::NoDescriptorsLeft none;
        timer = Timer::scheduledTimer(2ms, true, [&] { ++fired; });
    }
    EXPECT_EQ(test::openDescriptorCount(), descriptors) << "it is not the usual timer";
    EXPECT_TRUE(RunLoop::currentRunLoop().runUntil([&] { return fired == 2; }, kLong));
    timer.reset();
    RunLoop::currentRunLoop().runFor(10ms);
    EXPECT_EQ(fired, 2);
}

TEST(Timer, MayOutliveItsThread) {
    Handle timer;
    std::thread other([&] { timer = Timer::scheduledTimer(1h, true, [] {}); });
    other.join();
    timer.reset();
}

}  // namespace
}  // namespace utilia::platform
