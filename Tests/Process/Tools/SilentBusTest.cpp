#include <csignal>

#include <gtest/gtest.h>

#include "Tests/Process/Tools/RunningTool.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/VirtualDisplay.h"

// Windows of tools in a session whose bus takes connections, as the kernel does for it, and never answers.

namespace utilia::test {
namespace {

class ToolsOnASilentBus : public testing::Test {
protected:
    ToolsOnASilentBus() {
        session_.sessionBus().stop();
        environment_.insert({{"QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1"}});
    }
    static void expectToEnd(ChildProcess& tool) {
        tool.signal(SIGTERM);
        EXPECT_EQ(tool.waitForExit(), 0);
    }

    ToolSession session_;
    VirtualDisplay display_{session_.home().path()};
    std::map<std::string, std::string> environment_ = display_.environment();
};

TEST_F(ToolsOnASilentBus, TimerOpensItsWindowAndIsSet) {
    auto tool = session_.start(test::places::kTimerBundle, {}, environment_);
    session_.askForMenu(test::places::kTimerBundle);
    ToolSession::click(test::places::kTimerBundle);
    display_.waitForWindow("Timer");
    display_.press({"1", "0", "Return"});
    // A moment later where the bus is waited for until it is known to be silent.
    EXPECT_NE(session_.nextTextThatMatches(testing::MatchesRegex("(10:00|9:5[0-9]) left")), "");
    expectToEnd(tool);
}

TEST_F(ToolsOnASilentBus, ScreenCaptureOpensItsWindowAndEnds) {
    auto tool =
        session_.start(test::places::kScreenCaptureBundle, {"/nowhere/picture.png"}, environment_);
    display_.waitForWindow("Screen Capture");
    expectToEnd(tool);
}

}  // namespace
}  // namespace utilia::test
