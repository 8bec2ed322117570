#include "Common/Platform/SystemLog.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Common/Platform/Linux/LogSinks.h"
#include "Common/Platform/ProcessInfo.h"
#include "Tests/Support/JournalSocket.h"
#include "Tests/Support/LogPipe.h"
#include "Tests/Support/TemporaryHome.h"

using namespace utilia;
using platform::makeJournalOrDescriptorLogSink;
using platform::ProcessInfo;
using test::JournalSocket;

namespace {

struct SystemLog : testing::Test {
    std::string path() const { return folder.path() / "socket"; }
    std::string stderrLine(const std::string& line) const {
        return ProcessInfo::processName() + "[" + std::to_string(getpid()) + "]: " + line + "\n";
    }

    test::TemporaryFolder folder;
    test::LogPipe standardError;
    std::shared_ptr<LogSink> sink =
        makeJournalOrDescriptorLogSink(path(), standardError.writer.get());
};

std::ptrdiff_t countDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
}

// Holds the first line that comes until it is told to let go.
struct StuckSink final : LogSink {
    bool write(std::string_view) noexcept override {
        if (++calls > 1) return true;
        entered.set_value();
        released.get_future().wait();
        return true;
    }
    std::atomic<int> calls{0};
    std::promise<void> entered;
    std::promise<void> released;
};

constexpr int kWaited = 1;
constexpr int kReachedTheSink = 2;

// In a forked child: many lines, none of which may wait for or reach the sink.
int logInChild(const StuckSink& sink) {
    alarm(120);  // ends a child that hangs
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i) KULogVariadic("from the child");
    if (std::chrono::steady_clock::now() - begin > std::chrono::seconds(50)) return kWaited;
    return sink.calls == 1 ? 0 : kReachedTheSink;
}

}  // namespace

TEST_F(SystemLog, GoesToTheJournalWhenSomebodyListens) {
    const JournalSocket journal(path());
    EXPECT_TRUE(sink->write("hello"));

    EXPECT_EQ(journal.receive().bytes,
              "PRIORITY=6\nSYSLOG_IDENTIFIER=" + ProcessInfo::processName() + "\nMESSAGE=hello\n");
    EXPECT_EQ(standardError.readAll(), "");
}

TEST_F(SystemLog, GoesToStderrWhenNobodyListens) {
    EXPECT_TRUE(sink->write("hello"));

    EXPECT_EQ(standardError.readAll(), stderrLine("hello"));
}

TEST_F(SystemLog, GoesToStderrWhenTheJournalIsGone) {
    { const JournalSocket left(path()); }
    EXPECT_TRUE(sink->write("hello"));

    EXPECT_EQ(standardError.readAll(), stderrLine("hello"));
}

TEST_F(SystemLog, StaysWhereTheFirstLineWent) {
    EXPECT_TRUE(sink->write("one"));
    const JournalSocket journal(path());
    EXPECT_TRUE(sink->write("two"));

    EXPECT_EQ(standardError.readAll(), stderrLine("one") + stderrLine("two"));
    EXPECT_EQ(journal.receive().bytes, "");
}

TEST_F(SystemLog, OpensNothingBeforeTheFirstLine) {
    const JournalSocket journal(path());
    const auto before = countDescriptors();
    const auto systemSink = platform::makeSystemLogSink();
    const auto other = makeJournalOrDescriptorLogSink(path(), standardError.writer.get());
    ASSERT_TRUE(systemSink && other);
    EXPECT_EQ(countDescriptors(), before);
}

TEST(ForkedChild, DropsLinesAtOnceWhenAnotherThreadWasInTheSink) {
    platform::makeSystemLogSink();  // as every program does; makes the log ready for forks
    const auto sink = std::make_shared<StuckSink>();
    setLogSink(sink);
    std::thread stuck([] { KULogVariadic("stuck"); });
    sink->entered.get_future().wait();

    const pid_t child = fork();
    if (child == 0) _exit(logInChild(*sink));
    int status = -1;
    waitpid(child, &status, 0);
    sink->released.set_value();
    stuck.join();
    KULogVariadic("the parent goes on");
    setLogSink(nullptr);

    ASSERT_GT(child, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(sink->calls, 2);
}

TEST(ForkedChild, LogsWhenNobodyWasInTheSink) {
    const test::LogPipe pipe;
    platform::makeSystemLogSink();
    setLogSink(platform::makeDescriptorLogSink(pipe.writer.get(), "tool"));
    const pid_t child = fork();
    if (child == 0) {
        KULogVariadic("from the child");
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    setLogSink(nullptr);

    ASSERT_GT(child, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(pipe.readAll(), "tool[" + std::to_string(child) + "]: from the child\n");
}
