#include "Tests/Support/ChildRole.h"

#include <csignal>
#include <thread>

#include <gtest/gtest.h>

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

// The thread that has started the child is over when this returns.
ChildProcess startedByAThread(const std::vector<std::string>& arguments) {
    ChildProcess child;
    std::thread([&] {
        child = ChildProcess::role("stay", arguments);
        EXPECT_EQ(child.waitForLine(), "ready");
    }).join();
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
    EXPECT_EQ(startedByAThread({"1"}).waitForExit(), 128 + SIGKILL);
}

}  // namespace
}  // namespace utilia::test
