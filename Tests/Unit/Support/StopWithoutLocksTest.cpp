#include "Tests/Support/StopWithoutLocks.h"

#include <csignal>
#include <exception>

#include <gtest/gtest.h>
#include <unistd.h>

#include "Common/Platform/FileLock.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::test {
namespace {

using platform::FileLock;

// Has the lock most of the time.
UTILIA_CHILD_ROLE(lockAgainAndAgain) {
    self.say("ready");
    for (;;) {
        const auto lock = FileLock::acquireFolder(self.arguments.at(0), FileLock::Mode::Exclusive);
        usleep(300);
    }
}

TEST(StopWithoutLocks, LeavesTheLockToOthers) {
    const TemporaryHome home;
    const auto folder = home.path() / "folder";
    std::filesystem::create_directory(folder);
    ChildProcessOptions options;
    options.diesWithTest = true;
    auto child = ChildProcess::role("lockAgainAndAgain", {folder}, options);
    ASSERT_EQ(child.waitForLine(), "ready");
    for (int times = 0; times < 40; ++times) {
        stopWithoutLocks(child.pid(), home.path());
        EXPECT_TRUE(FileLock::acquireFolder(folder, FileLock::Mode::Exclusive,
                                            std::chrono::milliseconds(0)));
        child.signal(SIGCONT);
    }
}

// It has it for as long as it lives.
UTILIA_CHILD_ROLE(holdPort) {
    const RecordingPort port(self.arguments.at(0));
    self.say(port.isRegistered() ? "ready" : "refused");
    self.waitForLine();
    return 0;
}

TEST(StopWithoutLocks, PassesOverTheNameOfAPort) {
    const TemporaryHome home;
    auto child = ChildProcess::role("holdPort", {"com.example.held.port"});
    ASSERT_EQ(child.waitForLine(), "ready");
    stopWithoutLocks(child.pid(), home.path());
    EXPECT_TRUE(child.isRunning());
}

TEST(StopWithoutLocks, RefusesAProcessThatHasEnded) {
    auto child = ChildProcess::program("/bin/true", {});
    ASSERT_EQ(child.waitForExit(), 0);
    EXPECT_THROW(stopWithoutLocks(child.pid(), "/"), std::exception);
}

}  // namespace
}  // namespace utilia::test
