#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Common/Platform/FileLock.h"
#include "Common/Platform/Workspace.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/ReportPipe.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Applications/ReportingApplication.h"

namespace utilia::platform {
namespace {

using std::chrono::milliseconds;
using test::ChildProcess;
using test::ReportPipe;
using test::TemporaryHome;
using test::TestBundle;
using testing::HasSubstr;
using testing::StartsWith;

namespace fs = std::filesystem;

constexpr const char* kIdentifier = "com.korvane.utilia.SampleTool";
constexpr auto kWait = WorkspaceLaunchOptions::None;
constexpr auto kAsync = WorkspaceLaunchOptions::Async;

std::size_t runningCount() {
    return RunningApplication::runningApplicationsWithBundleIdentifier(kIdentifier).size();
}

// A child that nobody has reaped can still be signalled.
bool waitUntilReaped(pid_t process) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (kill(process, 0) == 0) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        sched_yield();
    }
    return true;
}

UTILIA_CHILD_ROLE(endWithStatus) {
    ReportPipe::report(self.arguments.at(0), "up " + std::to_string(getpid()));
    return std::stoi(self.arguments.at(1));
}

UTILIA_CHILD_ROLE(endByAbort) {
    ReportPipe::report(self.arguments.at(0), "up " + std::to_string(getpid()));
    signal(SIGABRT, SIG_DFL);
    abort();
}

// Comes up only when the test opens the gate, a named pipe.
UTILIA_CHILD_ROLE(slowApplication) {
    ReportPipe::report(self.arguments.at(0), "started " + std::to_string(getpid()));
    passGate(self.arguments.at(1));
    return runReportingApplication(self.arguments.at(0),
                                   {self.arguments.begin() + 2, self.arguments.end()});
}

// A set of signals in /proc/self/status, without the two that belong to the C library.
std::string statusField(const std::string& name) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (!line.starts_with(name + ":")) continue;
        constexpr std::uint64_t kInternal = 3ull << 31;
        return std::to_string(std::stoull(line.substr(name.size() + 1), nullptr, 16) & ~kInternal);
    }
    return "(none)";
}

UTILIA_CHILD_ROLE(tellSurroundings) {
    std::string descriptors;
    std::set<int> numbers;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd"))
        numbers.insert(std::stoi(entry.path().filename()));
    for (const int number : numbers) {
        // The walk's own descriptor is gone by now.
        std::error_code gone;
        const fs::path target = fs::read_symlink("/proc/self/fd/" + std::to_string(number), gone);
        if (!gone) descriptors += std::to_string(number) + "=" + target.string() + " ";
    }
    const std::string& pipe = self.arguments.at(0);
    ReportPipe::report(pipe, "up " + std::to_string(getpid()));
    ReportPipe::report(pipe, descriptors);
    ReportPipe::report(pipe, getsid(0) == getpid() && getpgid(0) == getpid() ? "own session"
                                                                             : "inherited session");
    ReportPipe::report(pipe,
                       "blocked " + statusField("SigBlk") + " ignored " + statusField("SigIgn"));
    ReportPipe::report(pipe, fs::current_path().string());
    ReportPipe::report(pipe, std::getenv("UTILIA_TEST_MARK") ? std::getenv("UTILIA_TEST_MARK")
                                                             : "(none)");
    return 0;
}

UTILIA_CHILD_ROLE(launcher) {
    self.say("ready");
    self.waitForLine();
    const auto options = self.arguments.at(0) == "async" ? kAsync : kWait;
    const auto launch = [options] {
        return Workspace::launchAppWithBundleIdentifier(kIdentifier, options, {"from a launcher"});
    };
    auto launched = launch();
    // Another launcher's application may take longer to come up than a launch waits for that.
    while (!launched && launched.error().is(UtiliaErrorCode::Busy)) launched = launch();
    self.say(launched ? "launched" : launched.error().description);
    self.waitForLine();
    return 0;
}

class Launch : public testing::Test {
protected:
    void TearDown() override {
        for (const pid_t process : launched_) {
            kill(process, SIGKILL);
            EXPECT_TRUE(waitUntilReaped(process)) << "a zombie stays";
        }
    }

    // The "up" or "started" line of an application that this process launched.
    std::string waitForChild() {
        const std::string line = reports_.waitForLine().value_or("(none)");
        if (const auto space = line.find(' '); space != std::string::npos && line.find('|') != 0) {
            const pid_t process = std::atoi(line.c_str() + space);
            if (process > 0) launched_.push_back(process);
        }
        return line;
    }
    void install(const std::string& role, std::vector<std::string> more = {}) {
        more.insert(more.begin(), reports_.path());
        bundle_.install(role, more);
    }
    Result<FileLock> takeLaunchLock() {
        const fs::path folder = home_.runtime() / "com.korvane.utilia/launch";
        fs::create_directories(folder);
        chmod(folder.c_str(), 0700);
        chmod(folder.parent_path().c_str(), 0700);
        return FileLock::acquire(folder / (std::string(kIdentifier) + ".lock"),
                                 FileLock::Mode::Exclusive, milliseconds(0));
    }

    TemporaryHome home_;
    ReportPipe reports_{home_.path()};
    TestBundle bundle_{home_};
    std::vector<pid_t> launched_;
};

TEST_F(Launch, WaitsUntilTheApplicationIsUp) {
    install("reportingApplication");
    const auto launched = Workspace::launchAppWithBundleIdentifier(kIdentifier, kWait);
    ASSERT_TRUE(launched) << launched.error().description;
    EXPECT_EQ(runningCount(), 1u);
    EXPECT_TRUE(takeLaunchLock()) << "the lock must be free when the application is up";
    EXPECT_GT(processOf(waitForChild()), 0);
}

TEST_F(Launch, HandsTheEntrysArgumentsAndThenItsOwnToANewProcess) {
    install("reportingApplication", {"from the entry", ""});
    ASSERT_TRUE(
        Workspace::launchAppWithBundleIdentifier(kIdentifier, kWait, {"--show-ui", "ü \"$HOME\""}));
    const std::string line = waitForChild();
    EXPECT_EQ(line.substr(line.find('|')), "|from the entry||--show-ui|ü \"$HOME\"");
}

TEST_F(Launch, OfARunningApplicationIsAReopenWithTheArguments) {
    install("reportingApplication", {"from the entry"});
    ASSERT_TRUE(Workspace::launchAppWithBundleIdentifier(kIdentifier, kWait));
    ASSERT_GT(processOf(waitForChild()), 0);
    EXPECT_TRUE(Workspace::launchAppWithBundleIdentifier(kIdentifier, kWait, {"--show-ui"}));
    EXPECT_EQ(reports_.waitForLine(), "reopen|--show-ui");
    EXPECT_TRUE(Workspace::launchAppWithBundleIdentifier(kIdentifier, kAsync));
    EXPECT_EQ(reports_.waitForLine(), "reopen");
    EXPECT_TRUE(Workspace::launchApplicationAtPath(bundle_.path(), kAsync, {"by path"}));
    EXPECT_EQ(reports_.waitForLine(), "reopen|by path");
    EXPECT_EQ(runningCount(), 1u);
}

TEST_F(Launch, ByPathNeedsNoInstallation) {
    // Started without a role, the program is a test run that ends; it lists no tests.
    const auto launched = Workspace::launchApplicationAtPath(
        bundle_.path(), kWait,
        {test::kChildRoleSwitch, "reportingApplication", reports_.path(), "by path"});
    ASSERT_TRUE(launched) << launched.error().description;
    EXPECT_THAT(waitForChild(), testing::EndsWith("|by path"));
    EXPECT_EQ(runningCount(), 1u);
}

TEST_F(Launch, ReachesTheInstanceThatRunsFromAnotherPath) {
    test::TestBundleOptions options;
    options.folder = home_.path() / "elsewhere";
    const TestBundle copy(home_, options);
    auto running = copy.role("reportingApplication", {reports_.path()});
    ASSERT_EQ(processOf(reports_.waitForLine()), running.pid());
    install("reportingApplication");
    EXPECT_TRUE(Workspace::launchAppWithBundleIdentifier(kIdentifier, kWait, {"to the copy"}));
    EXPECT_EQ(reports_.waitForLine(), "reopen|to the copy");
    EXPECT_EQ(runningCount(), 1u);
}

TEST_F(Launch, AfterAKillStartsAgain) {
    install("reportingApplication");
    ASSERT_TRUE(Workspace::launchAppWithBundleIdentifier(kIdentifier, kWait));
    const pid_t first = processOf(waitForChild());
    ASSERT_GT(first, 0);
    kill(first, SIGKILL);
    EXPECT_TRUE(waitUntilReaped(first));
    ASSERT_TRUE(Workspace::launchAppWithBundleIdentifier(kIdentifier, kAsync));
    EXPECT_NE(processOf(waitForChild()), first);
}

TEST_F(Launch, FromTenProcessesAtOnceStartsOne) {
    install("reportingApplication");
    for (const char* mode : {"wait", "async"}) {
        std::vector<ChildProcess> launchers;
        for (int i = 0; i < 10; ++i) launchers.push_back(ChildProcess::role("launcher", {mode}));
        for (ChildProcess& launcher : launchers) ASSERT_EQ(launcher.waitForLine(), "ready");
        for (ChildProcess& launcher : launchers) launcher.say("go");
        std::vector<std::string> lines;
        for (int i = 0; i < 10; ++i) lines.push_back(reports_.waitForLine().value_or("(none)"));
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                                [](const auto& line) { return line.starts_with("up "); }),
                  1);
        EXPECT_EQ(std::count(lines.begin(), lines.end(), "reopen|from a launcher"), 9);
        for (ChildProcess& launcher : launchers) EXPECT_EQ(launcher.waitForLine(), "launched");
        EXPECT_EQ(runningCount(), 1u);
        for (ChildProcess& launcher : launchers) launcher.kill();
        for (const std::string& line : lines) {
            if (processOf(line) > 0) kill(processOf(line), SIGKILL);
        }
        while (runningCount() != 0) sched_yield();
    }
}

TEST_F(Launch, GivesTheApplicationCleanSurroundings) {
    install("tellSurroundings");
    const int inheritable = dup(STDERR_FILENO);
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const auto oldHangUp = signal(SIGHUP, SIG_IGN);
    setenv("UTILIA_TEST_MARK", "kept", 1);
    const auto launched = Workspace::launchAppWithBundleIdentifier(kIdentifier, kWait);
    unsetenv("UTILIA_TEST_MARK");
    signal(SIGHUP, oldHangUp);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    close(inheritable);

    ASSERT_TRUE(launched) << launched.error().description;
    EXPECT_GT(processOf(waitForChild()), 0);
    EXPECT_EQ(reports_.waitForLine(), "0=/dev/null 1=/dev/null 2=/dev/null ");
    EXPECT_EQ(reports_.waitForLine(), "own session");
    EXPECT_EQ(reports_.waitForLine(), "blocked 0 ignored 0");
    EXPECT_EQ(reports_.waitForLine(), home_.path().string());
    EXPECT_EQ(reports_.waitForLine(), "kept");
}

TEST_F(Launch, WorksWhereTheHomeIsMissing) {
    install("tellSurroundings");
    const std::string home = home_.path().string();
    setenv("HOME", (home + "/missing").c_str(), 1);
    const auto launched = Workspace::launchAppWithBundleIdentifier(kIdentifier, kWait);
    setenv("HOME", home.c_str(), 1);
    ASSERT_TRUE(launched) << launched.error().description;
    EXPECT_GT(processOf(waitForChild()), 0);
    for (int i = 0; i < 3; ++i) reports_.waitForLine();
    EXPECT_EQ(reports_.waitForLine(), "/");
}

TEST_F(Launch, OfAnApplicationThatDeclinesWithStatus0Succeeds) {
    install("endWithStatus", {"0"});
    EXPECT_TRUE(Workspace::launchAppWithBundleIdentifier(kIdentifier, kWait));
    EXPECT_GT(processOf(waitForChild()), 0);
}

TEST_F(Launch, OfAnApplicationThatFailsNamesItAndItsStatus) {
    install("endWithStatus", {"3"});
    auto launched = Workspace::launchAppWithBundleIdentifier(kIdentifier, kWait);
    ASSERT_FALSE(launched);
    EXPECT_EQ(launched.error().description, std::string("launch ") + kIdentifier + ": " +
                                                bundle_.program() + " ended with status 3");
    waitForChild();
    install("endByAbort");
    launched = Workspace::launchAppWithBundleIdentifier(kIdentifier, kWait);
    ASSERT_FALSE(launched);
    EXPECT_THAT(launched.error().description, HasSubstr("ended with status 134"));
    waitForChild();
    EXPECT_TRUE(takeLaunchLock());
}

TEST_F(Launch, AsynchronouslyDoesNotWaitAndKeepsTheLockUntilTheApplicationIsUp) {
    const fs::path gate = home_.path() / "gate";
    ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
    install("slowApplication", {gate.string()});
    ASSERT_TRUE(Workspace::launchAppWithBundleIdentifier(kIdentifier, kAsync, {"first"}));
    EXPECT_THAT(waitForChild(), StartsWith("started "));
    EXPECT_EQ(runningCount(), 0u);
    const auto busy = takeLaunchLock();
    ASSERT_FALSE(busy);
    EXPECT_TRUE(busy.error().is(UtiliaErrorCode::Busy));

    // A launch in that state starts nothing, and its arguments arrive when the application is up.
    ASSERT_TRUE(Workspace::launchAppWithBundleIdentifier(kIdentifier, kAsync, {"second"}));
    openGate(gate);
    const auto up = reports_.waitForLine();
    EXPECT_EQ(processOf(up), launched_.front());
    EXPECT_THAT(up.value_or(""), testing::EndsWith("|first"));
    EXPECT_EQ(reports_.waitForLine(), "reopen|second");
}

TEST_F(Launch, WhileTheApplicationEndsStartsItAgainAfterwards) {
    const fs::path gate = home_.path() / "gate";
    ASSERT_EQ(mkfifo(gate.c_str(), 0600), 0);
    install("reportingApplication");
    auto ending = bundle_.role("lingeringApplication", {reports_.path(), gate});
    ASSERT_EQ(processOf(reports_.waitForLine()), ending.pid());
    ending.signal(SIGTERM);
    ASSERT_EQ(reports_.waitForLine(), "end");
    EXPECT_TRUE(Workspace::launchAppWithBundleIdentifier(kIdentifier, kAsync, {"again"}));
    EXPECT_EQ(runningCount(), 1u);
    openGate(gate);
    EXPECT_EQ(ending.waitForExit(), 0);
    EXPECT_THAT(waitForChild(), testing::EndsWith("|again"));
}

TEST_F(Launch, WhileAnotherLauncherHangsFailsAfterTwoSeconds) {
    install("reportingApplication");
    const auto lock = takeLaunchLock();
    ASSERT_TRUE(lock);
    const auto launched = Workspace::launchAppWithBundleIdentifier(kIdentifier, kWait);
    ASSERT_FALSE(launched);
    EXPECT_TRUE(launched.error().is(UtiliaErrorCode::Busy));
    EXPECT_THAT(launched.error().description, HasSubstr(kIdentifier));
    EXPECT_EQ(runningCount(), 0u);
}

TEST_F(Launch, AsynchronouslyWaitsItsTurnInTheBackground) {
    install("reportingApplication");
    auto lock = takeLaunchLock();
    ASSERT_TRUE(lock);
    EXPECT_TRUE(Workspace::launchAppWithBundleIdentifier(kIdentifier, kAsync, {"later"}));
    EXPECT_EQ(runningCount(), 0u);
    lock->release();
    EXPECT_THAT(waitForChild(), testing::EndsWith("|later"));
}

TEST_F(Launch, OfAnApplicationThatTakesNoArgumentsSaysSo) {
    install("reportingApplication");
    auto portless = bundle_.role("runAsApplication");
    ASSERT_EQ(portless.waitForLine(), "registered");
    EXPECT_TRUE(Workspace::launchAppWithBundleIdentifier(kIdentifier, kWait));
    const auto launched = Workspace::launchAppWithBundleIdentifier(kIdentifier, kWait, {"lost"});
    ASSERT_FALSE(launched);
    EXPECT_TRUE(launched.error().is(UtiliaErrorCode::Unavailable));
    EXPECT_EQ(launched.error().description,
              std::string(kIdentifier) + ": it runs, but takes no arguments");
    EXPECT_EQ(runningCount(), 1u);
}

TEST_F(Launch, LeavesTheHostsOwnChildrenAndSignalHandlersAlone) {
    install("endWithStatus", {"0"});
    struct sigaction before {};
    sigaction(SIGCHLD, nullptr, &before);
    const pid_t own = fork();
    if (own == 0) _exit(7);
    ASSERT_TRUE(Workspace::launchAppWithBundleIdentifier(kIdentifier, kWait));
    const pid_t launched = processOf(waitForChild());
    ASSERT_GT(launched, 0);
    EXPECT_TRUE(waitUntilReaped(launched));
    int status = 0;
    EXPECT_EQ(waitpid(own, &status, 0), own);
    EXPECT_EQ(WEXITSTATUS(status), 7);
    struct sigaction after {};
    sigaction(SIGCHLD, nullptr, &after);
    EXPECT_EQ(before.sa_handler, after.sa_handler);
}

}  // namespace
}  // namespace utilia::platform
