#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Platform/FileHandle.h"
#include "Common/Platform/Task.h"
#include "Common/Platform/Thread.h"
#include "Common/Platform/UniqueFd.h"
#include "Tests/Support/ReportPipe.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia::platform {
namespace {

using test::ReportPipe;
using testing::ElementsAre;

namespace fs = std::filesystem;

class TaskTest : public testing::Test {
protected:
    // A task of a shell that tells the test in lines what $1 says.
    Task shell(const std::string& commands) const {
        return {.launchPath = "/bin/bash",
                .arguments = {"-c", commands, "bash", pipe_.path()},
                .environment = {"PATH=/usr/bin:/bin"},
                .lockedFile = {}};
    }
    fs::path at(const char* name) const { return home_.path() / name; }
    std::string file(const char* name) const {
        std::ofstream(at(name)) << "content";
        return at(name).string();
    }
    // A lock that ends with the last process that holds it is free at once after that.
    static bool isLocked(const std::string& path) {
        const UniqueFd opened(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        return flock(opened.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    }

    const test::TemporaryHome home_;
    const test::TestLog log_;
    ReportPipe pipe_{home_.path()};
};

TEST_F(TaskTest, HasTheGivenEnvironmentAndNothingElse) {
    setenv("BASH_ENV", "/nowhere", 1);
    Task task = shell("cat /proc/$$/environ | tr '\\0' ';' > \"$1\"; echo > \"$1\"");
    task.environment.push_back("GREETING=good day");
    ASSERT_TRUE(task.launch());
    unsetenv("BASH_ENV");
    EXPECT_EQ(pipe_.waitForLine(), "PATH=/usr/bin:/bin;GREETING=good day;");
}

TEST_F(TaskTest, HasNullStandardStreamsASessionOfItsOwnAndTheHomeAsItsFolder) {
    ASSERT_TRUE(
        shell("echo \"$(readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2 | tr '\\n' ' ')"
              "$(ls /proc/$$/fd | wc -l) $(($(cut -d' ' -f6 /proc/$$/stat) - $$)) $PWD\" > \"$1\"")
            .launch());
    const std::string line = pipe_.waitForLine().value_or("nothing");
    EXPECT_TRUE(line.starts_with("/dev/null /dev/null /dev/null ")) << line;
    EXPECT_TRUE(line.ends_with(" 0 " + home_.path().string())) << line;
}

TEST_F(TaskTest, IsReapedWithoutTheHostsHelp) {
    ASSERT_TRUE(shell("echo $$ > \"$1\"").launch());
    const pid_t process = std::stoi(pipe_.waitForLine().value_or("0"));
    ASSERT_GT(process, 0);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (kill(process, 0) == 0 && std::chrono::steady_clock::now() < deadline) sched_yield();
    EXPECT_EQ(kill(process, 0), -1) << "a process that nobody reaped can still be signalled";
}

TEST_F(TaskTest, FailsWhenTheProgramCannotBeStarted) {
    const auto launched = Task{at("missing").string(), {}, {}, {}}.launch();
    ASSERT_FALSE(launched);
    EXPECT_TRUE(launched.error().isPosix(ENOENT)) << launched.error().description;
    Task withNul = shell("true");
    withNul.arguments.emplace_back("a\0b", 3);
    EXPECT_TRUE(withNul.launch().error().is(UtiliaErrorCode::Refused));
}

TEST_F(TaskTest, KeepsTheLockUntilTheLastOfWhatItStartedHasEnded) {
    const std::string locked = file("report");
    const std::string gate = at("gate").string();
    ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
    // The shell ends, and what it has started waits behind the gate.
    Task task =
        shell("{ read -r line < '" + gate + "'; echo late > \"$1\"; } & echo ended > \"$1\"");
    task.lockedFile = locked;
    ASSERT_TRUE(task.launch());
    ASSERT_EQ(pipe_.waitForLine(), "ended");
    EXPECT_TRUE(isLocked(locked));
    const auto second = task.launch();
    ASSERT_FALSE(second);
    EXPECT_TRUE(second.error().is(UtiliaErrorCode::Busy)) << second.error().description;

    const UniqueFd opened(open(gate.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(write(opened.get(), "go\n", 3), 3);
    ASSERT_EQ(pipe_.waitForLine(), "late");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (isLocked(locked) && std::chrono::steady_clock::now() < deadline) sched_yield();
    EXPECT_FALSE(isLocked(locked));
}

TEST_F(TaskTest, LocksTheFileAlsoWhenItsDescriptorHasTheChildsNumber) {
    const std::string locked = file("report");
    // The numbers below are taken, and 3 is free: what is opened next gets it.
    const UniqueFd saved(fcntl(3, F_DUPFD_CLOEXEC, 100));
    if (saved) close(3);
    Task task = shell("readlink /proc/$$/fd/3 > \"$1\"");
    task.lockedFile = locked;
    const auto launched = task.launch();
    if (saved) dup3(saved.get(), 3, O_CLOEXEC);
    ASSERT_TRUE(launched);
    EXPECT_EQ(pipe_.waitForLine(), locked);
}

TEST_F(TaskTest, RefusesALinkInThePlaceOfTheLockedFileAndNoticesThatItIsGone) {
    fs::create_symlink(file("report"), at("link"));
    Task task = shell("echo started > \"$1\"");
    task.lockedFile = at("link").string();
    EXPECT_TRUE(task.launch().error().isPosix(ELOOP));
    task.lockedFile = at("missing").string();
    EXPECT_TRUE(task.launch().error().isPosix(ENOENT));
}

TEST_F(TaskTest, WhoeverOnlyLooksForTheLockKeepsNoTaskFromStarting) {
    const std::string locked = file("report");
    UniqueFd looker(open(locked.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(looker.get(), LOCK_SH), 0);
    EXPECT_FALSE(Task::isLocked(locked)) << "another one who looks";
    Task task = shell("echo started > \"$1\"");
    task.lockedFile = locked;
    std::optional<Result<void>> launched;
    std::atomic<bool> isTrying = false;
    std::atomic<bool> isLooking = true;
    std::thread launcher([&] {
        isTrying = true;
        launched = task.launch();
        EXPECT_FALSE(isLooking);
    });
    while (!isTrying) std::this_thread::yield();
    // Time for it to be refused at least once, which nothing tells of.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    isLooking = false;
    looker.reset();
    launcher.join();
    EXPECT_TRUE(launched->has_value());
    EXPECT_EQ(pipe_.waitForLine(), "started");
    EXPECT_FALSE(Task::isLocked(at("missing").string()));
}

TEST_F(TaskTest, LeavesNoLockBehindWhenItCannotStart) {
    const std::string locked = file("report");
    EXPECT_FALSE((Task{at("missing").string(), {}, {}, locked}.launch()));
    EXPECT_FALSE(isLocked(locked));
}

TEST_F(TaskTest, AThreadRunsItsWorkWithoutTheHostsSignals) {
    const std::string name = pipe_.path();
    ASSERT_TRUE(Thread::detachNewThread("a name", [name] {
        sigset_t blocked;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        char own[16];
        pthread_getname_np(pthread_self(), own, sizeof own);
        ReportPipe::report(name, std::string(own) +
                                     (sigismember(&blocked, SIGTERM) ? " blocked" : " open"));
    }));
    EXPECT_EQ(pipe_.waitForLine(), "a name blocked");
    sigset_t mine;
    pthread_sigmask(SIG_BLOCK, nullptr, &mine);
    EXPECT_FALSE(sigismember(&mine, SIGTERM)) << "of its maker nothing is changed";
}

TEST_F(TaskTest, WhatAThreadThrowsEndsWithALogLine) {
    const std::string name = pipe_.path();
    struct Reporter {
        std::string path;
        ~Reporter() { ReportPipe::report(path, "unwound"); }
    };
    ASSERT_TRUE(Thread::detachNewThread("thrower", [name] {
        const Reporter reporter{name};
        throw std::runtime_error("no luck");
    }));
    EXPECT_EQ(pipe_.waitForLine(), "unwound");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (log_.lines().empty() && std::chrono::steady_clock::now() < deadline) sched_yield();
    EXPECT_THAT(log_.lines(), ElementsAre("A thread threw: no luck"));
}

TEST_F(TaskTest, AnOpenFileIsReadToItsEnd) {
    const std::string path = file("file");
    FileHandle handle(UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC)));
    char buffer[4];
    ASSERT_EQ(handle.read(buffer).value_or(99), 4u);
    EXPECT_EQ(std::string(buffer, 4), "cont");
    EXPECT_EQ(handle.read(buffer).value_or(99), 3u);
    EXPECT_EQ(handle.read(buffer).value_or(99), 0u);
    FileHandle folder(UniqueFd(open(home_.path().c_str(), O_RDONLY | O_CLOEXEC)));
    EXPECT_TRUE(folder.read(buffer).error().isPosix(EISDIR));
}

}  // namespace
}  // namespace utilia::platform
