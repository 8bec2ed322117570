#include <csignal>
#include <fstream>
#include <iterator>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/Platform/Workspace.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/VirtualDisplay.h"

// A Qt application with the adapter and nothing else between it and the framework.

namespace utilia::integration {
namespace {

using test::ChildProcess;
using test::TemporaryHome;
using test::TestBundle;
using test::VirtualDisplay;

class QtHostTest : public testing::Test {
protected:
    // Without a display: Qt's platform for programs that show nothing.
    test::ChildProcessOptions offscreen() const {
        test::ChildProcessOptions options;
        options.environment = {{"QT_QPA_PLATFORM", "offscreen"},
                               {"DBUS_SESSION_BUS_ADDRESS", "disabled:"}};
        options.standardError = home_.path() / "errors";
        return options;
    }
    ChildProcess start(const std::string& role, test::ChildProcessOptions options) const {
        auto tool = bundle_.role(role, {}, std::move(options));
        EXPECT_EQ(tool.waitForLine(), "launched");
        EXPECT_EQ(tool.waitForLine(), "serves the framework");
        return tool;
    }
    std::string errors() const {
        std::ifstream file(home_.path() / "errors");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    static void expectEnd(ChildProcess& tool, int status) {
        EXPECT_EQ(tool.waitForLine(), "will-terminate");
        EXPECT_EQ(tool.waitForLine(), "left its loop") << "will-terminate is posted once";
        EXPECT_EQ(tool.waitForExit(), status);
    }

    TemporaryHome home_;
    TestBundle bundle_{home_};
};

TEST_F(QtHostTest, ListsTheApplicationAsRunningUntilItEnds) {
    auto tool = start("qtTool", offscreen());
    const auto running = platform::RunningApplication::runningApplicationsWithBundleIdentifier(
        bundle_.options().bundleIdentifier);
    ASSERT_EQ(running.size(), 1u);
    EXPECT_EQ(running[0].processIdentifier(), tool.pid());
    tool.say("terminate");
    expectEnd(tool, 0);
}

TEST_F(QtHostTest, EndsInAnOrderlyWayOnEverySignalThatEndsApplications) {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        auto tool = start("qtTool", offscreen());
        tool.signal(signal);
        expectEnd(tool, 0);
    }
}

TEST_F(QtHostTest, EndsAlthoughAWindowRefusesToClose) {
    auto tool = start("stubbornQtTool", offscreen());
    tool.signal(SIGTERM);
    expectEnd(tool, 0);
}

TEST_F(QtHostTest, EndsThroughTheLoopOfADialog) {
    auto tool = start("qtTool", offscreen());
    tool.say("dialog");
    ASSERT_EQ(tool.waitForLine(), "asks");
    tool.signal(SIGTERM);
    expectEnd(tool, 0);
}

TEST_F(QtHostTest, PostsWillTerminateWhenTheLastWindowCloses) {
    auto tool = start("qtTool", offscreen());
    tool.say("close");
    expectEnd(tool, 0);
}

TEST_F(QtHostTest, KeepsTheExitStatusThatTheApplicationChose) {
    auto tool = start("qtTool", offscreen());
    tool.say("exit 3");
    expectEnd(tool, 3);
}

TEST_F(QtHostTest, EntersNoLoopWhenTheApplicationWasEndedBefore) {
    auto tool = bundle_.role("qtToolThatEndsAtOnce", {}, offscreen());
    EXPECT_EQ(tool.waitForLine(), "launched");
    expectEnd(tool, 0);
}

TEST_F(QtHostTest, ServesTheFrameworkAlsoWhereQtDoesNotRunGlibsLoop) {
    auto options = offscreen();
    options.environment["QT_NO_GLIB"] = "1";
    auto tool = start("qtTool", options);
    auto second = bundle_.role("qtTool", {}, offscreen());
    EXPECT_EQ(second.waitForExit(), 0);
    EXPECT_EQ(tool.waitForLine(), "reopen visible qtTool");
    tool.signal(SIGTERM);
    expectEnd(tool, 0);
    EXPECT_THAT(errors(), testing::HasSubstr("Qt does not run GLib's loop"));
}

TEST_F(QtHostTest, SaysNothingOfTheLoopWhereQtRunsIt) {
    auto tool = start("qtTool", offscreen());
    tool.say("terminate");
    expectEnd(tool, 0);
    EXPECT_THAT(errors(), testing::Not(testing::HasSubstr("loop")));
}

// ---- on a screen

class QtHostOnScreenTest : public QtHostTest {
protected:
    test::ChildProcessOptions onScreen() const {
        test::ChildProcessOptions options = offscreen();
        options.environment = display_.environment();
        options.environment["QT_QPA_PLATFORM"] = "xcb";
        options.environment["DBUS_SESSION_BUS_ADDRESS"] = "disabled:";
        return options;
    }
    void startAgain() const {
        auto second = bundle_.role("qtTool", {}, onScreen());
        EXPECT_EQ(second.waitForExit(), 0);
    }

    VirtualDisplay display_{home_.path()};
};

TEST_F(QtHostOnScreenTest, ComesToTheFrontWhenItIsStartedAgain) {
    const TestBundle other(home_, {.name = "Other", .bundleIdentifier = "com.example.Other"});
    auto tool = start("qtTool", onScreen());
    const std::string window = display_.waitForWindow("Qt tool");
    auto covering = other.role("qtTool", {}, onScreen());
    EXPECT_EQ(covering.waitForLine(), "launched");
    ASSERT_TRUE(test::eventually([&] { return display_.focusedWindow() != window; }));
    startAgain();
    EXPECT_EQ(tool.waitForLine(), "reopen visible qtTool");
    EXPECT_TRUE(test::eventually([&] { return display_.focusedWindow() == window; }));
}

TEST_F(QtHostOnScreenTest, IsRestoredWhenItIsStartedAgainMinimized) {
    auto tool = start("qtTool", onScreen());
    const std::string window = display_.waitForWindow("Qt tool");
    tool.say("minimize");
    ASSERT_TRUE(test::eventually([&] { return !display_.hasWindow("Qt tool"); }));
    startAgain();
    EXPECT_EQ(tool.waitForLine(), "reopen hidden qtTool") << "a minimized window is not visible";
    EXPECT_EQ(display_.waitForWindow("Qt tool"), window);
}

TEST_F(QtHostOnScreenTest, LeavesAHiddenWindowToTheDelegate) {
    auto options = onScreen();
    auto tool = start("qtTool", options);
    display_.waitForWindow("Qt tool");
    tool.say("hide");
    ASSERT_TRUE(test::eventually([&] { return !display_.hasWindow("Qt tool"); }));
    startAgain();
    EXPECT_EQ(tool.waitForLine(), "reopen hidden qtTool");
    tool.say("terminate");
    expectEnd(tool, 0);
}

}  // namespace
}  // namespace utilia::integration
