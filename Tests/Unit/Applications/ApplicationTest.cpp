#include "Common/Platform/Application.h"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include "Common/Platform/NotificationCenter.h"
#include "Common/Platform/RunLoop.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia::platform {
namespace {

using test::ChildProcess;
using test::TemporaryHome;
using test::TestLog;
using testing::ElementsAre;

constexpr std::chrono::minutes kLong{10};

// Says "finished", "will-terminate" and "returned STATUS" as they happen; what else it does is its
// first argument.
UTILIA_CHILD_ROLE(lifeCycle) {
    const std::string& mode = self.arguments.at(0);
    auto& application = Application::sharedApplication();
    auto& center = NotificationCenter::defaultCenter();
    std::vector<std::thread> threads;
    const Handle finished = center.addObserver(
        NSApplicationDidFinishLaunchingNotification, &application, [&](const void*) {
            self.say(application.isFinishedLaunching() ? "finished" : "finished too early");
            if (mode == "terminate at once") application.terminate();
        });
    const Handle ending =
        center.addObserver(NSApplicationWillTerminateNotification, &application, [&](const void*) {
            self.say(application.isTerminating() && gettid() == getpid() ? "will-terminate"
                                                                         : "wrong thread or state");
            if (mode == "wait at the end") self.waitForLine();
            application.terminate();
        });

    if (mode == "terminate") MainQueue::async([&] { application.terminate(); });
    if (mode == "terminate from threads") {
        MainQueue::async([&] {
            for (int i = 0; i < 4; ++i) threads.emplace_back([&] { application.terminate(); });
        });
    }
    if (mode == "terminate in a nested run") {
        MainQueue::async([&] {
            MainQueue::async([&] { application.terminate(); });
            RunLoop::mainRunLoop().runUntil([] { return false; }, kLong);
            self.say("nested run ended");
        });
    }
    if (mode == "exit behind run") {
        MainQueue::async([&] {
            application.terminateAndExit([&] {
                self.say("exit");
                std::exit(7);
            });
            application.terminateAndExit([] { std::exit(8); });
            self.say("goes on until the loop stops");
        });
    }
    if (mode == "exit from a thread") {
        threads.emplace_back([&] {
            application.terminateAndExit([&] {
                self.say(gettid() == getpid() ? "exit" : "exit on the wrong thread");
                threads[0].join();
                std::exit(7);
            });
        });
    }
    if (mode == "exit before run") {
        application.finishLaunching();
        application.terminateAndExit([&] {
            self.say("exit");
            std::exit(7);
        });
        self.say("main goes on");
    }
    if (mode == "fork") {
        MainQueue::async([&] {
            const pid_t child = fork();
            if (child == 0) {
                for (;;) pause();
            }
            self.say(std::to_string(child));
            int status = 0;
            waitpid(child, &status, 0);
            self.say("child ended by " +
                     std::to_string(WIFSIGNALED(status) ? WTERMSIG(status) : 0));
            MainQueue::async(
                [&] { self.say(application.isTerminating() ? "terminating" : "goes on"); });
        });
    }
    if (mode == "host that does not quit" || mode == "host that quits") {
        application.setQuitHandler([&] {
            self.say("quit");
            if (mode == "host that quits") RunLoop::mainRunLoop().stop();
        });
        application.finishLaunching();
        const auto before = std::chrono::steady_clock::now();
        application.terminateAndExit([&] {
            const auto after = std::chrono::steady_clock::now() - before;
            self.say(after >= Application::kExitTimeout ? "exit" : "exit too early");
            std::exit(7);
        });
        RunLoop::mainRunLoop().runFor(kLong);
        self.say("host loop ended");
        return 0;
    }
    if (mode == "own handler") signal(SIGTERM, [](int) { _exit(9); });
    if (mode == "host loop") {
        application.setQuitHandler([&] {
            self.say("quit");
            RunLoop::mainRunLoop().stop();
        });
        application.finishLaunching();
        application.finishLaunching();
        RunLoop::mainRunLoop().run();
        self.say("host loop ended");
        return 0;
    }
    const int status = application.run();
    for (std::thread& thread : threads) thread.join();
    self.say("returned " + std::to_string(status));
    return status;
}

std::vector<std::string> remainingLines(ChildProcess& child) {
    std::vector<std::string> lines;
    while (auto line = child.waitForLine()) lines.push_back(*line);
    return lines;
}

class TerminationSignal : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(All, TerminationSignal, testing::Values(SIGTERM, SIGINT, SIGHUP));

TEST_P(TerminationSignal, EndsTheApplicationInAnOrderlyWay) {
    const TemporaryHome home;
    auto child = ChildProcess::role("lifeCycle", {"plain"});
    ASSERT_EQ(child.waitForLine(), "finished");
    child.signal(GetParam());
    EXPECT_THAT(remainingLines(child), ElementsAre("will-terminate", "returned 0"));
    EXPECT_EQ(child.waitForExit(), 0);
}

// The signals that a process ignores, as the kernel tells it.
std::uint64_t ignoredSignals(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("SigIgn:")) return std::stoull(line.substr(7), nullptr, 16);
    }
    return 0;
}

TEST_P(TerminationSignal, ThatIsIgnoredAtTheStartStaysIgnored) {
    const TemporaryHome home;
    const auto before = signal(GetParam(), SIG_IGN);
    auto child = ChildProcess::role("lifeCycle", {"plain"});
    signal(GetParam(), before);
    ASSERT_EQ(child.waitForLine(), "finished");
    const int other = GetParam() == SIGTERM ? SIGINT : SIGTERM;
    const std::uint64_t ignored = ignoredSignals(child.pid());
    EXPECT_TRUE(ignored >> (GetParam() - 1) & 1);
    EXPECT_FALSE(ignored >> (other - 1) & 1);
    child.signal(GetParam());
    child.signal(other);
    EXPECT_THAT(remainingLines(child), ElementsAre("will-terminate", "returned 0"));
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(Application, ManySignalsAndCallsAreOneEnd) {
    const TemporaryHome home;
    auto child = ChildProcess::role("lifeCycle", {"wait at the end"});
    ASSERT_EQ(child.waitForLine(), "finished");
    child.signal(SIGTERM);
    ASSERT_EQ(child.waitForLine(), "will-terminate");
    for (int i = 0; i < 100; ++i) {
        for (const int number : {SIGTERM, SIGINT, SIGHUP}) child.signal(number);
    }
    child.say("go on");
    EXPECT_THAT(remainingLines(child), ElementsAre("returned 0"));
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(Application, TerminateEndsRun) {
    const TemporaryHome home;
    auto child = ChildProcess::role("lifeCycle", {"terminate"});
    EXPECT_THAT(remainingLines(child), ElementsAre("finished", "will-terminate", "returned 0"));
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(Application, TerminateBeforeTheLoopRunsEndsItToo) {
    const TemporaryHome home;
    auto child = ChildProcess::role("lifeCycle", {"terminate at once"});
    EXPECT_THAT(remainingLines(child), ElementsAre("finished", "will-terminate", "returned 0"));
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(Application, TerminateFromOtherThreadsEndsItOnTheMainThread) {
    const TemporaryHome home;
    auto child = ChildProcess::role("lifeCycle", {"terminate from threads"});
    EXPECT_THAT(remainingLines(child), ElementsAre("finished", "will-terminate", "returned 0"));
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(Application, TerminateInANestedRunEndsBothRuns) {
    const TemporaryHome home;
    auto child = ChildProcess::role("lifeCycle", {"terminate in a nested run"});
    EXPECT_THAT(remainingLines(child),
                ElementsAre("finished", "will-terminate", "nested run ended", "returned 0"));
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(Application, AHostsLoopIsEndedByItsQuitHandler) {
    const TemporaryHome home;
    auto child = ChildProcess::role("lifeCycle", {"host loop"});
    ASSERT_EQ(child.waitForLine(), "finished");
    child.signal(SIGTERM);
    EXPECT_THAT(remainingLines(child), ElementsAre("will-terminate", "quit", "host loop ended"));
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(Application, AnExitThatMustFollowComesWhenRunHasStoppedItsLoop) {
    const TemporaryHome home;
    auto child = ChildProcess::role("lifeCycle", {"exit behind run"});
    EXPECT_THAT(remainingLines(child),
                ElementsAre("finished", "will-terminate", "goes on until the loop stops", "exit"));
    EXPECT_EQ(child.waitForExit(), 7) << "the first exit counts";
}

TEST(Application, AnExitThatMustFollowComesOnTheMainThread) {
    const TemporaryHome home;
    auto child = ChildProcess::role("lifeCycle", {"exit from a thread"});
    EXPECT_THAT(remainingLines(child), ElementsAre("finished", "will-terminate", "exit"));
    EXPECT_EQ(child.waitForExit(), 7);
}

TEST(Application, AnExitThatMustFollowComesAlsoWhenItEndsBeforeItsLoopRuns) {
    const TemporaryHome home;
    auto child = ChildProcess::role("lifeCycle", {"exit before run"});
    EXPECT_THAT(remainingLines(child),
                ElementsAre("finished", "will-terminate", "main goes on", "exit"));
    EXPECT_EQ(child.waitForExit(), 7);
}

TEST(Application, AHostThatDoesNotQuitIsEndedAfterTheTimeout) {
    const TemporaryHome home;
    auto child = ChildProcess::role("lifeCycle", {"host that does not quit"});
    EXPECT_THAT(remainingLines(child), ElementsAre("finished", "will-terminate", "quit", "exit"));
    EXPECT_EQ(child.waitForExit(), 7);
}

TEST(Application, AHostThatQuitsEndsByItself) {
    const TemporaryHome home;
    auto child = ChildProcess::role("lifeCycle", {"host that quits"});
    EXPECT_THAT(remainingLines(child),
                ElementsAre("finished", "will-terminate", "quit", "host loop ended"));
    EXPECT_EQ(child.waitForExit(), 0);
}

TEST(Application, AForkedChildDiesOfASignalAlone) {
    const TemporaryHome home;
    auto child = ChildProcess::role("lifeCycle", {"fork"});
    ASSERT_EQ(child.waitForLine(), "finished");
    const int forked = std::stoi(child.waitForLine().value_or("-1"));
    ASSERT_GT(forked, 0);
    kill(forked, SIGTERM);
    EXPECT_EQ(child.waitForLine(), "child ended by 15");
    EXPECT_EQ(child.waitForLine(), "goes on");
}

TEST(Application, AHandlerOfTheHostIsLeftInPlace) {
    const TemporaryHome home;
    auto child = ChildProcess::role("lifeCycle", {"own handler"});
    ASSERT_EQ(child.waitForLine(), "finished");
    child.signal(SIGTERM);
    EXPECT_EQ(child.waitForExit(), 9);
}

class RecordingDelegate final : public ApplicationDelegate {
public:
    explicit RecordingDelegate(std::vector<std::string>& calls) : calls_(calls) {}
    bool applicationShouldHandleReopen(bool hasVisibleWindows,
                                       const std::vector<std::string>& arguments) override {
        calls_.push_back(hasVisibleWindows ? "visible" : "hidden");
        calls_.insert(calls_.end(), arguments.begin(), arguments.end());
        return false;
    }

private:
    std::vector<std::string>& calls_;
};

TEST(Application, ReopenAsksTheDelegateAndThenComesToTheFront) {
    auto& application = Application::sharedApplication();
    std::vector<std::string> calls;
    RecordingDelegate delegate(calls);
    application.reopen({"without anything set"});
    application.setActivateHandler([&] { calls.push_back("activated"); });
    application.reopen({"without a delegate"});
    EXPECT_THAT(calls, ElementsAre("activated"));
    calls.clear();

    application.setDelegate(&delegate);
    application.reopen({"--show-ui"});
    application.setWindowsVisibleHandler([] { return true; });
    application.reopen({});
    EXPECT_THAT(calls, ElementsAre("hidden", "--show-ui", "activated", "visible", "activated"));
    application.setDelegate(nullptr);
    application.setActivateHandler(nullptr);
    application.setWindowsVisibleHandler(nullptr);
}

TEST(Application, ADelegateAnswersEverythingByDefault) {
    ApplicationDelegate delegate;
    const TestLog log;
    EXPECT_TRUE(delegate.applicationShouldHandleReopen(false, {}));
    EXPECT_TRUE(log.lines().empty());
    delegate.silentUpdateResources();
    EXPECT_THAT(
        log.lines(),
        ElementsAre(
            "Application: asked to update its resources, which this application does not do"));
}

}  // namespace
}  // namespace utilia::platform
