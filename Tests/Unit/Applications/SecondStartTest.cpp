#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "Common/Platform/Application.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/NotificationCenter.h"
#include "Common/Platform/ProcessInfo.h"
#include "Common/Platform/RunLoop.h"
#include "Common/Platform/Workspace.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/ReportPipe.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Unit/Applications/ReportingApplication.h"
#include "Tests/Unit/Applications/TestFiles.h"

namespace utilia::platform {
namespace {

using test::ChildProcess;
using test::ReportPipe;
using test::TemporaryHome;
using test::TestBundle;
using testing::StartsWith;

UTILIA_CHILD_ROLE(applicationMadeToEnd) {
    auto& application = Application::sharedApplication();
    const Handle ending = NotificationCenter::defaultCenter().addObserver(
        NSApplicationWillTerminateNotification, &application,
        [&](const void*) { self.say("will-terminate"); });
    application.setLaunchedToTerminate();
    application.finishLaunching();
    const auto running = RunningApplication::runningApplicationsWithBundleIdentifier(
        Bundle::mainBundle()->bundleIdentifier().value_or(""));
    const bool isListed = std::any_of(running.begin(), running.end(), [](const auto& one) {
        return one.processIdentifier() == ProcessInfo::processIdentifier();
    });
    self.say(application.isFinishedLaunching() && !isListed ? "came up, and is not listed"
                                                            : "wrong state");
    MainQueue::async([&] { application.terminate(); });
    return application.run();
}

UTILIA_CHILD_ROLE(applicationWithOtherArguments) {
    Application::sharedApplication().setHandedOverArguments(self.arguments);
    Application::sharedApplication().finishLaunching();
    return 1;
}

class SecondStart : public testing::Test {
protected:
    ChildProcess start(const TestBundle& bundle, const std::vector<std::string>& arguments = {}) {
        std::vector<std::string> all{reports_.path()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return bundle.role("reportingApplication", all);
    }

    TemporaryHome home_;
    ReportPipe reports_{home_.path()};
    TestBundle bundle_{home_};
};

TEST_F(SecondStart, HandsItsArgumentsOverAndEndsWithStatus0) {
    auto first = start(bundle_);
    ASSERT_EQ(processOf(reports_.waitForLine()), first.pid());
    auto second = start(bundle_, {"--show-ui", "two words", ""});
    EXPECT_EQ(second.waitForExit(), 0);
    EXPECT_EQ(reports_.waitForLine(), "reopen|--child-role|reportingApplication|" +
                                          reports_.path() + "|--show-ui|two words|");
    EXPECT_TRUE(first.isRunning());
    first.signal(SIGTERM);
    EXPECT_EQ(first.waitForExit(), 0);
    EXPECT_EQ(reports_.waitForLine(), "end")
        << "the second start must neither come up nor post its end";
}

TEST_F(SecondStart, HandsOverWhatItWasToldTo) {
    auto first = start(bundle_);
    ASSERT_EQ(processOf(reports_.waitForLine()), first.pid());
    auto second = bundle_.role("applicationWithOtherArguments", {"/home/a file", ""});
    EXPECT_EQ(second.waitForExit(), 0);
    EXPECT_EQ(reports_.waitForLine(), "reopen|/home/a file|");
    auto third = bundle_.role("applicationWithOtherArguments");
    EXPECT_EQ(third.waitForExit(), 0);
    EXPECT_EQ(reports_.waitForLine(), "reopen");
}

TEST_F(SecondStart, ThroughALinkIsASecondStartToo) {
    auto first = start(bundle_);
    ASSERT_EQ(processOf(reports_.waitForLine()), first.pid());
    std::filesystem::create_directory_symlink(bundle_.path(), home_.path() / "Link.app");
    test::ChildProcessOptions options;
    options.program = home_.path() / "Link.app/Contents/Linux/tool";
    auto second = ChildProcess::role("reportingApplication", {reports_.path()}, options);
    EXPECT_EQ(second.waitForExit(), 0);
    EXPECT_THAT(reports_.waitForLine().value_or(""), StartsWith("reopen|"));
}

TEST_F(SecondStart, OfACopyAtAnotherPathIsAnInstanceOfItsOwn) {
    test::TestBundleOptions options;
    options.folder = home_.path() / "elsewhere";
    const TestBundle copy(home_, options);
    auto first = start(bundle_);
    ASSERT_EQ(processOf(reports_.waitForLine()), first.pid());
    auto second = start(copy);
    EXPECT_EQ(processOf(reports_.waitForLine()), second.pid());
    EXPECT_EQ(RunningApplication::runningApplicationsWithBundleIdentifier(
                  bundle_.options().bundleIdentifier)
                  .size(),
              2u);
}

TEST_F(SecondStart, AfterTheFirstWasKilledIsTheFirstAgain) {
    auto first = start(bundle_);
    ASSERT_EQ(processOf(reports_.waitForLine()), first.pid());
    first.kill();
    auto second = start(bundle_);
    EXPECT_EQ(processOf(reports_.waitForLine()), second.pid());
}

TEST_F(SecondStart, RightAfterAKillAtAnyMomentIsTheFirstAgain) {
    for (int i = 0; i < 60; ++i) {
        SCOPED_TRACE(i);
        auto killed = start(bundle_);
        // While it is loaded, while it launches, or while it runs.
        (void)killed.waitForExit(std::chrono::milliseconds(i % 20));
        killed.kill();
        auto next = start(bundle_);
        auto line = reports_.waitForLine();
        if (processOf(line) == killed.pid()) line = reports_.waitForLine();
        ASSERT_EQ(processOf(line), next.pid());
        EXPECT_TRUE(next.isRunning());
        next.kill();
    }
}

TEST_F(SecondStart, WhileTheFirstEndsIsTheFirstAgain) {
    const std::string gate = home_.path() / "gate";
    ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
    auto first = bundle_.role("lingeringApplication", {reports_.path(), gate});
    ASSERT_EQ(processOf(reports_.waitForLine()), first.pid());
    first.signal(SIGTERM);
    ASSERT_EQ(reports_.waitForLine(), "end");
    auto second = start(bundle_);
    EXPECT_EQ(processOf(reports_.waitForLine()), second.pid());
    openGate(gate);
    EXPECT_EQ(first.waitForExit(), 0);
}

TEST_F(SecondStart, OfTenAtOnceLeavesOneInstanceThatHeardOfTheOthers) {
    std::vector<ChildProcess> children;
    for (int i = 0; i < 10; ++i) children.push_back(start(bundle_));
    std::vector<std::string> lines;
    for (int i = 0; i < 10; ++i) lines.push_back(reports_.waitForLine().value_or("(none)"));
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const auto& line) { return line.starts_with("up "); }),
              1);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const auto& line) { return line.starts_with("reopen|"); }),
              9);
    const auto up = std::find_if(lines.begin(), lines.end(),
                                 [](const auto& line) { return line.starts_with("up "); });
    ASSERT_NE(up, lines.end());
    for (ChildProcess& child : children) {
        if (child.pid() != processOf(*up)) {
            EXPECT_EQ(child.waitForExit(), 0);
        }
    }
}

TEST_F(SecondStart, ThatIsOnlyMadeToEndIsNoInstance) {
    auto first = start(bundle_);
    ASSERT_EQ(processOf(reports_.waitForLine()), first.pid());
    auto second = bundle_.role("applicationMadeToEnd");
    EXPECT_EQ(second.waitForLine(), "came up, and is not listed");
    EXPECT_EQ(second.waitForLine(), "will-terminate");
    EXPECT_EQ(second.waitForExit(), 0);
    EXPECT_TRUE(first.isRunning());
    first.signal(SIGTERM);
    EXPECT_EQ(reports_.waitForLine(), "end") << "nothing was handed over to it";
}

TEST_F(SecondStart, OfABundleWithoutIdentifierRuns) {
    test::TestBundleOptions options;
    options.name = "Nameless";
    options.bundleIdentifier = "";
    const TestBundle nameless(home_, options);
    auto first = start(nameless);
    EXPECT_EQ(processOf(reports_.waitForLine()), first.pid());
    auto second = start(nameless);
    EXPECT_EQ(processOf(reports_.waitForLine()), second.pid());
}

TEST_F(SecondStart, OfAProgramWithoutABundleRuns) {
    auto first = ChildProcess::role("reportingApplication", {reports_.path()});
    EXPECT_EQ(processOf(reports_.waitForLine()), first.pid());
    auto second = ChildProcess::role("reportingApplication", {reports_.path()});
    EXPECT_EQ(processOf(reports_.waitForLine()), second.pid());
}

TEST_F(SecondStart, RunsWhereTheRuntimeFolderCannotBeUsed) {
    const auto folder = home_.runtime() / "com.korvane.utilia";
    std::filesystem::create_directory(folder);
    chmod(folder.c_str(), 0755);
    auto only = start(bundle_);
    EXPECT_EQ(processOf(reports_.waitForLine()), only.pid());
    only.signal(SIGTERM);
    EXPECT_EQ(only.waitForExit(), 0);
}

}  // namespace
}  // namespace utilia::platform
