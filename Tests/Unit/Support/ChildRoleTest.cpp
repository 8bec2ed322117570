#include "Tests/Support/ChildRole.h"

#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

#include "Tests/Support/ChildProcess.h"

namespace utilia::test {
namespace {

UTILIA_CHILD_ROLE(stay) {
    if (!self.arguments.empty())
        outliveLauncher(std::chrono::seconds(std::stoi(self.arguments[0])));
    self.say("ready");
    while (self.waitForLine() == "go on") self.say("still here");
    return 0;
}

// The thread that has started the child is over when this returns, and whoever dies with it has been told.
ChildProcess startedByAThread(const std::vector<std::string>& arguments) {
    ChildProcess child;
    std::filesystem::path thread;
    std::thread([&] {
        thread = "/proc/self/task/" + std::to_string(gettid());
        child = ChildProcess::role("stay", arguments);
        EXPECT_EQ(child.waitForLine(), "ready");
    }).join();
    // The kernel wakes who waits for a thread first, tells its children then, and forgets it last.
    while (std::filesystem::exists(thread)) std::this_thread::yield();
    return child;
}

TEST(ChildRole, EndsWithTheThreadThatHasStartedIt) {
    EXPECT_EQ(startedByAThread({}).waitForExit(), 128 + SIGKILL);
}

TEST(ChildRole, OutlivesThatThread) {
    auto child = startedByAThread({"600"});
    child.say("go on");
    EXPECT_EQ(child.waitForLine(), "still here");
    child.say("end");
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(ChildRole, EndsAfterItsTimeWhateverItWaitsFor) {
    auto child = ChildProcess::role("stay", {"1"});
    EXPECT_EQ(child.waitForExit(), 128 + SIGKILL);
}

}  // namespace
}  // namespace utilia::test
