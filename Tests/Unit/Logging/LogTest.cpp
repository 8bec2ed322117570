#include "Common/Logging/Log.h"

#include <atomic>
#include <charconv>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Logging/FailingAllocation.h"

using namespace utilia;
using Lines = std::vector<std::string>;

namespace {

// Takes lines as long as `open`, and does something on the way.
struct Gate final : LogSink {
    bool write(std::string_view line) noexcept override {
        if (during) during(line);
        if (!open) return false;
        lines.emplace_back(line);
        return true;
    }
    std::atomic<bool> open{true};
    std::function<void(std::string_view)> during;
    Lines lines;
};

class Log : public testing::Test {
protected:
    Log() { setLogSink(gate); }
    ~Log() override {
        gate->open = true;
        gate->during = nullptr;
        KULogVariadic("end");  // says what is left of the count, so that no test sees another's
        setLogSink(nullptr);
        setExtendedLoggingProbe(nullptr);
    }
    std::shared_ptr<Gate> gate = std::make_shared<Gate>();
};

std::uint64_t droppedIn(const std::string& line) {
    if (line == "1 earlier line was dropped") return 1;
    if (!line.ends_with(" earlier lines were dropped")) return 0;
    std::uint64_t count = 0;
    std::from_chars(line.data(), line.data() + line.size(), count);
    return count;
}

}  // namespace

TEST_F(Log, HandsFormattedLinesToTheSink) {
    KULogVariadic("Launched %@ in %d ms", "tool", 12);
    KULogVariadic("plain");

    EXPECT_EQ(gate->lines, (Lines{"Launched tool in 12 ms", "plain"}));
}

TEST_F(Log, SaysHowManyLinesTheSinkRefusedBeforeTheNextOne) {
    gate->open = false;
    KULogVariadic("lost");
    KULogVariadic("lost too");
    gate->open = true;
    KULogVariadic("first");
    KULogVariadic("second");

    EXPECT_EQ(gate->lines, (Lines{"2 earlier lines were dropped", "first", "second"}));
}

TEST_F(Log, CountsOneLineAsOne) {
    gate->open = false;
    KULogVariadic("lost");
    gate->open = true;
    KULogVariadic("next");

    EXPECT_EQ(gate->lines, (Lines{"1 earlier line was dropped", "next"}));
}

TEST_F(Log, KeepsTheCountWhenOnlyTheNoteGetsThrough) {
    gate->open = false;
    KULogVariadic("lost");
    KULogVariadic("lost");
    gate->open = true;
    bool refuse = true;
    gate->during = [&](std::string_view line) {
        gate->open = !refuse || droppedIn(std::string(line)) != 0;
    };
    KULogVariadic("lost after the note");
    refuse = false;
    KULogVariadic("next");

    EXPECT_EQ(gate->lines,
              (Lines{"2 earlier lines were dropped", "1 earlier line was dropped", "next"}));
}

TEST_F(Log, CountsALineThatThereIsNoMemoryFor) {
    const std::string longText(1000, 'x');
    {
        const test::FailingAllocation noMemory;
        KULogVariadic("lost: %@", longText);
    }
    KULogVariadic("next");

    EXPECT_EQ(gate->lines, (Lines{"1 earlier line was dropped", "next"}));
}

TEST_F(Log, CountsLinesThatTheSinkItselfLogs) {
    gate->during = [](std::string_view line) { KULogVariadic("about to write %@", line); };
    KULogVariadic("line");
    gate->during = nullptr;
    KULogVariadic("next");

    EXPECT_EQ(gate->lines, (Lines{"line", "1 earlier line was dropped", "next"}));
}

TEST_F(Log, LetsASinkReplaceItselfAndAskForTheProbe) {
    const auto other = std::make_shared<Gate>();
    setExtendedLoggingProbe([] { return true; });
    bool extended = false;
    gate->during = [&](std::string_view) {
        setLogSink(other);
        extended = KUIsExtendedLoggingOn();
    };
    KULogVariadic("to the old one");
    KULogVariadic("to the new one");
    gate->during = nullptr;

    EXPECT_TRUE(extended);
    EXPECT_EQ(gate->lines, Lines{"to the old one"});
    EXPECT_EQ(other->lines, Lines{"to the new one"});
}

TEST_F(Log, LetsASinkThatWasReplacedLogWhileItEnds) {
    struct Talkative final : LogSink {
        ~Talkative() override { KULogVariadic("ending"); }
        bool write(std::string_view) noexcept override { return true; }
    };
    setLogSink(std::make_shared<Talkative>());
    KULogVariadic("to the talkative one");
    setLogSink(gate);

    EXPECT_EQ(gate->lines, Lines{"ending"});
}

TEST_F(Log, AsksTheInstalledProbeWhetherExtendedLoggingIsOn) {
    EXPECT_FALSE(KUIsExtendedLoggingOn());
    bool on = true;
    setExtendedLoggingProbe([&on] { return on; });
    EXPECT_TRUE(KUIsExtendedLoggingOn());
    on = false;
    EXPECT_FALSE(KUIsExtendedLoggingOn());
    setExtendedLoggingProbe([]() -> bool { throw std::runtime_error("no preferences"); });
    EXPECT_FALSE(KUIsExtendedLoggingOn());
    setExtendedLoggingProbe(nullptr);
    EXPECT_FALSE(KUIsExtendedLoggingOn());
}

TEST_F(Log, LosesNoLineWithoutCountingItWhenManyThreadsLog) {
    constexpr int kThreads = 4;
    constexpr int kLines = 2000;
    std::atomic<int> calls{0};
    gate->during = [&](std::string_view) { gate->open = ++calls % 7 != 0; };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([thread] {
            for (int i = 0; i < kLines; ++i) KULogVariadic("%d:%d", thread, i);
        });
    }
    for (std::thread& thread : threads) thread.join();
    gate->during = nullptr;
    gate->open = true;
    KULogVariadic("last");

    std::uint64_t said = 0;
    std::uint64_t taken = 0;
    for (const std::string& line : gate->lines) {
        const std::uint64_t dropped = droppedIn(line);
        said += dropped;
        taken += dropped == 0;
    }
    EXPECT_EQ(said + taken, kThreads * kLines + 1u);
    EXPECT_GT(said, 0u);
    EXPECT_EQ(gate->lines.back(), "last");
}

TEST_F(Log, DoesNotWaitForAnotherThreadThatIsStuckInTheSink) {
    std::promise<void> entered;
    std::promise<void> released;
    gate->during = [&](std::string_view line) {
        if (line != "stuck") return;
        entered.set_value();
        released.get_future().wait();
    };
    std::thread stuck([] { KULogVariadic("stuck"); });
    entered.get_future().wait();
    KULogVariadic("lost");  // comes back, though the sink is released only after it
    released.set_value();
    stuck.join();
    KULogVariadic("next");

    EXPECT_EQ(gate->lines, (Lines{"stuck", "1 earlier line was dropped", "next"}));
}

TEST_F(Log, WaitsOnlyOnceForAThreadThatIsStuckInTheSink) {
    std::promise<void> entered;
    std::promise<void> released;
    gate->during = [&](std::string_view line) {
        if (line != "stuck") return;
        entered.set_value();
        released.get_future().wait();
    };
    std::thread stuck([] { KULogVariadic("stuck"); });
    entered.get_future().wait();
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i) KULogVariadic("lost");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(50));
    released.set_value();
    stuck.join();
    for (int i = 0; i < 2; ++i) KULogVariadic("next");

    EXPECT_EQ(gate->lines, (Lines{"stuck", "100 earlier lines were dropped", "next", "next"}));
}

TEST_F(Log, KeepsTheOrderOfEachThread) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([thread] {
            for (int i = 0; i < 500; ++i) KULogVariadic("%d %d", thread, i);
        });
    }
    for (std::thread& thread : threads) thread.join();

    KULogVariadic("0 500");

    // A thread that does not run for a second while it is in the sink costs the others a line, which the next one
    // says: the last at the latest, for which nobody is in the way.
    std::array<int, 4> last{-1, -1, -1, -1};
    std::uint64_t dropped = 0;
    std::uint64_t taken = 0;
    for (const std::string& line : gate->lines) {
        dropped += droppedIn(line);
        if (droppedIn(line) != 0) continue;
        ++taken;
        const std::size_t thread = static_cast<std::size_t>(line[0] - '0');
        const int number = std::stoi(line.substr(2));
        ASSERT_GT(number, last.at(thread)) << line;
        last.at(thread) = number;
    }
    EXPECT_EQ(taken + dropped, 4u * 500 + 1);
    EXPECT_EQ(last[0], 500);
}

TEST_F(Log, TakesNewSinksAndProbesWhileOthersLog) {
    std::atomic<bool> done{false};
    std::thread logging([&done] {
        while (!done) {
            if (!KUIsExtendedLoggingOn()) KULogVariadic("line");
        }
    });
    std::vector<std::shared_ptr<Gate>> sinks;
    for (int i = 0; i < 200; ++i) {
        sinks.push_back(std::make_shared<Gate>());
        setLogSink(sinks.back());
        setExtendedLoggingProbe([i] { return i % 2 == 0; });
    }
    setExtendedLoggingProbe(nullptr);
    done = true;
    logging.join();
    setLogSink(gate);
    KULogVariadic("after");

    ASSERT_EQ(gate->lines.back(), "after");
    gate->lines.pop_back();
    sinks.push_back(gate);
    for (const auto& sink : sinks) {
        for (const std::string& line : sink->lines) {
            if (droppedIn(line) == 0) {
                ASSERT_EQ(line, "line");
            }
        }
    }
}

TEST(TestLog, CollectsExactLines) {
    const test::TestLog log;
    KULogVariadic("one %d", 1);

    EXPECT_EQ(log.lines(), Lines{"one 1"});
    EXPECT_EQ(log.count("one"), 1u);
}

TEST(PlainLog, WritesOneEscapedLineToStderr) {
    setLogSink(nullptr);
    testing::internal::CaptureStderr();
    KULogVariadic("line %@", "a\nb");

    EXPECT_EQ(testing::internal::GetCapturedStderr(), "line a\\nb\n");
}
