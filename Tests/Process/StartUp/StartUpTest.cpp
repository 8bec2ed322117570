#include <algorithm>
#include <chrono>
#include <csignal>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "Common/Platform/UserDefaults.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataReader.h"
#include "Tests/Process/StartUp/StartUpFixture.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/ReportPipe.h"
#include "Tests/Support/VirtualDisplay.h"

namespace utilia::test {
namespace {

using platform::RunningApplication;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kRestrictedLine =
    "Tool with bundleId com.korvane.utilia.Timer is restricted.";
constexpr const char* kRequirementsLine =
    "Tool cannot run due to pre-requirements not match. Terminate.";
constexpr const char* kForbiddenLine = "The next tools are forbidden";
constexpr const char* kAgentQuestion = "Korvane Utilia is required for Timer to function properly.";
constexpr const char* kRestrictedQuestion =
    "This tool cannot be launched due to restrictions. Please contact your system administrator "
    "for more information.";

class StartUp : public StartUpFixture {
protected:
    StartUp() { markAsMigrated(); }

    // Comes up, runs, and ends when it is told to.
    void expectToRun(const TestBundle& bundle, const std::vector<std::string>& arguments = {}) {
        ChildProcess process = start(bundle, arguments);
        ASSERT_EQ(process.waitForLine(), "main");
        ASSERT_EQ(process.waitForLine(), "first turn");
        process.signal(SIGTERM);
        const Course rest = courseOf(process);
        EXPECT_THAT(rest.lines, ElementsAre("will-terminate", "main returns"));
        EXPECT_EQ(rest.status, 0);
    }

    const TestBundle timer_ = tool("Timer", kListed);
};

// ---- who is checked

TEST_F(StartUp, LetsAToolRunThatNothingSpeaksAgainst) {
    expectToRun(timer_);
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(StartUp, ListsAToolBeforeItsMain) {
    const Course course = courseOf(timer_, {std::string("listed=") + kListed, "no-loop"});
    EXPECT_THAT(course.lines, ElementsAre("main", "listed"));
    EXPECT_EQ(course.status, 7) << "what main answers";
    EXPECT_TRUE(wasEverListed(kListed));
}

TEST_F(StartUp, RunsNoCheckForTheAgentInWhateverLetterCase) {
    allowOnly({});
    for (const char* identifier : {"com.korvane.utilia", "COM.Korvane.UTILIA"}) {
        SCOPED_TRACE(identifier);
        const TestBundle agent =
            tool(std::string("Agent ") + identifier, identifier, needingTheAgent());
        expectToRun(agent);
        const Course course = courseOf(agent, {std::string("listed=") + identifier, "no-loop"});
        EXPECT_THAT(course.lines, ElementsAre("main", "listed"));
    }
    EXPECT_THAT(log(), IsEmpty()) << "not even the white-list was read";
}

TEST_F(StartUp, ChecksAnIdentifierThatOnlyResemblesTheAgents) {
    allowOnly({});
    for (const char* identifier :
         {"com.korvane.utilia.", "com.korvane.utili", " com.korvane.utilia"}) {
        SCOPED_TRACE(identifier);
        const std::size_t before = countInLog(kForbiddenLine);
        const TestBundle one = tool(std::string("Like ") + identifier, identifier);
        courseOf(one, {"no-loop"});
        EXPECT_EQ(countInLog(kForbiddenLine), before + 1) << "read for a tool only";
    }
}

TEST_F(StartUp, ChecksAProgramWithoutABundleAndFindsNothing) {
    allowOnly({});
    const auto program = home_.path() / "lone" / "a" / "b" / "c" / "tool";
    std::filesystem::create_directories(program.parent_path());
    std::filesystem::create_symlink(prefix() / "lib", home_.path() / "lib");
    std::filesystem::copy_file(test::places::kStartUpTool, program);
    ChildProcessOptions options{.standardError = home_.path() / "log", .mounts = &mounts_};
    ChildProcess process = ChildProcess::program(program, {"no-loop"}, options);
    const Course course = courseOf(process);
    EXPECT_THAT(course.lines, ElementsAre("main"));
    EXPECT_EQ(course.status, 7);
    EXPECT_EQ(countInLog(kForbiddenLine), 1u);
    EXPECT_EQ(log().size(), 1u);
}

// ---- shutting off

TEST_F(StartUp, ShutsAToolOffAtTheFirstTurnOfItsLoop) {
    const std::vector<std::vector<std::string>> calls = {
        {"--turn-off"}, {"--verbose", "--turn-off", "file"}, {"", "--", "--turn-off"}};
    for (const auto& arguments : calls) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        const Course course = courseOf(timer_, arguments);
        // What was queued behind it may have its turn while the loop stops.
        EXPECT_THAT(course.lines,
                    testing::AnyOf(ElementsAre("main", "will-terminate"),
                                   ElementsAre("main", "will-terminate", "first turn")));
        EXPECT_EQ(course.status, 0);
    }
    EXPECT_FALSE(wasEverListed(kListed));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(StartUp, TakesOnlyTheWholeArgumentForTheSwitch) {
    for (const char* argument : {"--turn-off=1", "--turn-offs", "--turn-of", "--TURN-OFF",
                                 "--Turn-off", "-turn-off", " --turn-off", "turn-off"}) {
        SCOPED_TRACE(argument);
        expectToRun(timer_, {argument});
    }
}

TEST_F(StartUp, ChecksNothingOfAToolThatIsShutOff) {
    allowOnly({});
    answerAlerts("button 1");
    const TestBundle bound = tool("Timer", kListed, needingTheAgent());
    const Course course = courseOf(bound, {"--turn-off"});
    EXPECT_EQ(course.lines.at(0), "main");
    EXPECT_THAT(course.lines, Contains("will-terminate"));
    EXPECT_EQ(course.status, 0);
    EXPECT_EQ(questions(), "");
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(StartUp, LeavesTheRunningInstanceAloneWhenAnotherIsShutOff) {
    ChildProcess running = start(timer_);
    ASSERT_EQ(running.waitForLine(), "main");
    ASSERT_EQ(running.waitForLine(), "first turn");
    const Course course = courseOf(timer_, {"--turn-off", std::string("listed=") + kListed});
    EXPECT_THAT(course.lines, Contains("not listed"));
    EXPECT_THAT(course.lines, Contains("will-terminate"));
    EXPECT_EQ(course.status, 0);
    const auto listed = RunningApplication::runningApplicationsWithBundleIdentifier(kListed);
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0].processIdentifier(), running.pid());
    // It goes on, was not reopened, and still is the instance that others are handed over to.
    EXPECT_EQ(courseOf(timer_, {"again"}).status, 0);
    EXPECT_EQ(running.waitForLine(), "reopen|again");
    running.signal(SIGTERM);
    EXPECT_THAT(courseOf(running).lines, ElementsAre("will-terminate", "main returns"));
}

TEST_F(StartUp, StoresWhatAToolKeepsWhenItIsShutOff) {
    const Course course = courseOf(timer_, {"--turn-off", "client"});
    EXPECT_THAT(course.lines, Contains("will-terminate"));
    EXPECT_EQ(course.status, 0);
    const ToolPersistentDataReader stored("Timer.app", "com.korvane.utilia.Timer");
    EXPECT_TRUE(stored.isPermanent());
    EXPECT_EQ(stored.menuText(), "kept");
}

TEST_F(StartUp, EndsAToolThatIsShutOffAlsoWhenItsHostDoesNotQuit) {
    const auto before = std::chrono::steady_clock::now();
    const Course course = courseOf(timer_, {"--turn-off", "ignore-quit"});
    EXPECT_THAT(course.lines, ElementsAre("main", "will-terminate", "asked to quit", "first turn"));
    EXPECT_EQ(course.status, 0);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
}

TEST_F(StartUp, LeavesTheStatusToAMainThatReturnsBeforeItsLoop) {
    const Course course = courseOf(timer_, {"--turn-off", "no-loop"});
    EXPECT_THAT(course.lines, ElementsAre("main"));
    EXPECT_EQ(course.status, 7);
}

// ---- the administrator's restriction

TEST_F(StartUp, EndsARestrictedToolBeforeItsMain) {
    allowOnly({"MoonPhase", "Stopwatch"});
    answerAlerts("button 0");
    const Course course = courseOf(timer_);
    EXPECT_THAT(course.lines, IsEmpty());
    EXPECT_EQ(course.status, 0);
    EXPECT_EQ(questions(),
              std::string("utilia-alert 1\n2\nen\nTimer\n") + kRestrictedQuestion + "\nOK\n");
    EXPECT_EQ(countInLog(kForbiddenLine), 1u);
    EXPECT_EQ(countInLog(kRestrictedLine), 1u);
    EXPECT_EQ(log().size(), 2u);
    EXPECT_FALSE(wasEverListed(kListed));
}

TEST_F(StartUp, TellsAUserInHisLanguageThatAToolIsRestricted) {
    allowOnly({"MoonPhase"});
    answerAlerts("button 0");
    const Course course = courseOf(timer_, {}, {.environment = {{"LANGUAGE", "de"}}});
    EXPECT_THAT(course.lines, IsEmpty());
    EXPECT_EQ(questions(),
              "utilia-alert 1\n2\nde\nTimer\nDieses Tool kann aufgrund von Einschränkungen nicht "
              "gestartet werden. Bitte wenden Sie sich für weitere Informationen an Ihren "
              "Systemadministrator.\nOK\n");
    EXPECT_EQ(countInLog(kRestrictedLine), 1u) << "the log stays as it is";
}

TEST_F(StartUp, EndsARestrictedToolAlsoWhereNobodyCanBeTold) {
    allowOnly({});
    const Course course = courseOf(timer_);
    EXPECT_THAT(course.lines, IsEmpty());
    EXPECT_EQ(course.status, 0);
    EXPECT_EQ(countInLog(kRestrictedLine), 1u);
    EXPECT_FALSE(wasEverListed(kListed));
}

TEST_F(StartUp, EndsARestrictedToolWhateverTheAlertAnswers) {
    allowOnly({});
    for (const char* answer : {"button 7", "nonsense", ""}) {
        SCOPED_TRACE(answer);
        answerAlerts(answer);
        const Course course = courseOf(timer_);
        EXPECT_THAT(course.lines, IsEmpty());
        EXPECT_EQ(course.status, 0);
    }
    std::filesystem::remove(framework() /
                            "Resources/UtiliaCommon.bundle/Contents/Linux/utilia-alert");
    EXPECT_THAT(courseOf(timer_).lines, IsEmpty());
}

TEST_F(StartUp, AsksOfARestrictedToolNothingButThat) {
    allowOnly({});
    answerAlerts("button 0");
    EXPECT_THAT(courseOf(tool("Timer", kListed, needingTheAgent())).lines, IsEmpty());
    EXPECT_THAT(questions(), Not(HasSubstr(kAgentQuestion)));
    EXPECT_EQ(countInLog(kRequirementsLine), 0u);
}

TEST_F(StartUp, LetsThoseRunThatTheWhiteListNames) {
    allowOnly({"timer"});
    expectToRun(timer_);
    EXPECT_EQ(countInLog(kForbiddenLine), 1u);
    EXPECT_EQ(log().size(), 1u);
}

TEST_F(StartUp, StopsOnlyToolsOfTheCatalogue) {
    allowOnly({});
    expectToRun(tool("Stranger", "com.korvane.utilia.NobodyKnowsThis"));
    expectToRun(tool("Elsewhere", "com.example.Timer"));
    EXPECT_EQ(countInLog("is restricted"), 0u);
}

// ---- what a tool needs

TEST_F(StartUp, EndsAToolThatNeedsAnAgentWhichIsNotInstalled) {
    answerAlerts("button 0");
    const TestBundle bound = tool("Timer", kListed, needingTheAgent());
    const Course course = courseOf(bound);
    EXPECT_THAT(course.lines, IsEmpty());
    EXPECT_EQ(course.status, 0);
    EXPECT_THAT(questions(), HasSubstr(kAgentQuestion));
    EXPECT_EQ(countInLog(kRequirementsLine), 1u);
    EXPECT_FALSE(wasEverListed(kListed));
}

TEST_F(StartUp, EndsAToolWhenTheUserQuits) {
    answerAlerts("button 1");
    const TestBundle agent = tool("Agent", kAgent);
    agent.install("agent");
    // Whoever launches it says that it is not there.
    std::filesystem::remove(agent.program());
    const Course course = courseOf(tool("Timer", kListed, needingTheAgent()));
    EXPECT_THAT(course.lines, IsEmpty());
    EXPECT_EQ(course.status, 0);
    EXPECT_EQ(countInLog(kRequirementsLine), 1u);
    EXPECT_EQ(log().size(), 1u) << "nothing was launched";
    EXPECT_FALSE(wasEverListed(kListed));
}

TEST_F(StartUp, LaunchesTheAgentThatAToolNeeds) {
    answerAlerts("button 0");
    ReportPipe reports(home_.path());
    const TestBundle agent = tool("Agent", kAgent);
    agent.install("agent", {"report=" + reports.path()});
    const TestBundle bound = tool("Timer", kListed, needingTheAgent());
    expectToRun(bound);
    ASSERT_EQ(reports.waitForLine(), "main");
    ASSERT_EQ(reports.waitForLine(), "first turn");
    const std::string asked = questions();
    EXPECT_THAT(asked, HasSubstr(kAgentQuestion));
    expectToRun(bound);
    EXPECT_EQ(questions(), asked) << "with an agent that runs nobody is asked";
    EXPECT_THAT(log(), IsEmpty());
    for (const auto& running : RunningApplication::runningApplicationsWithBundleIdentifier(kAgent))
        ::kill(static_cast<pid_t>(running.processIdentifier()), SIGTERM);
    EXPECT_EQ(reports.waitForLine(), "will-terminate");
    EXPECT_EQ(reports.waitForLine(), "main returns");
}

// ---- in front of somebody

TEST_F(StartUp, ShowsAWindowBeforeTheMainOfARestrictedTool) {
    const VirtualDisplay display(home_.path());
    allowOnly({"MoonPhase"});
    ChildProcess process = start(timer_, {}, {.environment = display.environment()});
    display.waitForWindow("Timer");
    EXPECT_TRUE(process.isRunning());
    EXPECT_FALSE(wasEverListed(kListed));
    display.press({"Return"});
    const Course course = courseOf(process);
    EXPECT_THAT(course.lines, IsEmpty());
    EXPECT_EQ(course.status, 0);
    EXPECT_EQ(countInLog(kRestrictedLine), 1u);
    EXPECT_FALSE(wasEverListed(kListed));
}

TEST_F(StartUp, GoesOnInMainWhenTheUserLaunchesTheAgent) {
    const VirtualDisplay display(home_.path());
    ReportPipe reports(home_.runtime());
    const TestBundle agent = tool("Agent", kAgent);
    agent.install("agent", {"report=" + reports.path()});
    const TestBundle bound = tool("Timer", kListed, needingTheAgent());
    ChildProcess process = start(bound, {"no-loop"}, {.environment = display.environment()});
    display.waitForWindow("Timer");
    display.press({"Return"});
    EXPECT_EQ(process.waitForLine(), "main");
    EXPECT_EQ(process.waitForExit(), 7);
    EXPECT_EQ(reports.waitForLine(), "main") << "of the agent";
    EXPECT_EQ(reports.waitForLine(), "first turn");
    for (const auto& running : RunningApplication::runningApplicationsWithBundleIdentifier(kAgent))
        ::kill(static_cast<pid_t>(running.processIdentifier()), SIGTERM);
    EXPECT_EQ(reports.waitForLine(), "will-terminate");
}

// ---- the migration of login items

class FirstStart : public StartUpFixture {};

TEST_F(FirstStart, MigratesLoginItemsOnceForEachUser) {
    const TestBundle timer = tool("Timer", kListed);
    EXPECT_EQ(courseOf(timer, {"no-loop"}).status, 7);
    EXPECT_EQ(countInLog("No tools were migrated to UtiliaToolLauncher."), 1u);
    EXPECT_EQ(log().size(), 1u);
    EXPECT_EQ(courseOf(timer, {"no-loop"}).status, 7);
    EXPECT_EQ(courseOf(tool("Agent", kAgent), {"no-loop"}).status, 7);
    EXPECT_EQ(log().size(), 1u) << "later starts say nothing";
    EXPECT_TRUE(platform::UserDefaults::initWithDomain(kAgent)->boolForKey("ToolLauncherMigrated"));
}

TEST_F(FirstStart, MigratesInEachKindOfProcess) {
    const TestBundle agent = tool("Agent", kAgent);
    const TestBundle timer = tool("Timer", kListed);
    const std::vector<std::pair<const TestBundle*, std::vector<std::string>>> starts = {
        {&agent, {"no-loop"}}, {&timer, {"no-loop"}}, {&timer, {"no-loop", "--turn-off"}}};
    for (std::size_t i = 0; i < starts.size(); ++i) {
        courseOf(*starts[i].first, starts[i].second);
        EXPECT_EQ(countInLog("No tools were migrated"), i + 1);
        std::filesystem::remove_all(home_.config());
    }
}

// ---- the facade

TEST_F(StartUp, KnowsTheHelpersOfItsOwnFramework) {
    answerAlerts("button 0");
    const auto folder = framework() / "Resources/UtiliaCommon.bundle/Contents/Linux";
    EXPECT_THAT(courseOf(timer_, {"helper=utilia-alert", "no-loop"}).lines,
                ElementsAre("main", (folder / "utilia-alert").string()));
    std::filesystem::permissions(folder / "answer", std::filesystem::perms(0644));
    for (const char* name : {"answer", "missing", "../Linux/utilia-alert", "."}) {
        SCOPED_TRACE(name);
        EXPECT_THAT(courseOf(timer_, {std::string("helper=") + name, "no-loop"}).lines,
                    ElementsAre("main", "none"));
    }
    std::filesystem::remove_all(framework());
    EXPECT_THAT(courseOf(timer_, {"helper=utilia-alert", "no-loop"}).lines,
                ElementsAre("main", "none"));
}

TEST_F(StartUp, AsksAnAgentThatDoesNotRunToShowItself) {
    ReportPipe reports(home_.path());
    EXPECT_EQ(courseOf(timer_, {"show-agent", "no-loop"}).status, 7) << "none is installed";
    // A launch by path knows nothing of the desktop entry's arguments.
    const TestBundle agent = tool("Agent", kAgent, {{"ReportPipe", reports.path()}});
    agent.install("agent");
    EXPECT_EQ(courseOf(timer_, {"show-agent", "no-loop"}).status, 7);
    EXPECT_EQ(reports.waitForLine(), "main") << "only the second one launched it";
    EXPECT_EQ(reports.waitForLine(), "shows itself");
    EXPECT_EQ(reports.waitForLine(), "first turn");
    for (const auto& running : RunningApplication::runningApplicationsWithBundleIdentifier(kAgent))
        ::kill(static_cast<pid_t>(running.processIdentifier()), SIGTERM);
    EXPECT_EQ(reports.waitForLine(), "will-terminate");
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(StartUp, AsksAnAgentThatRunsToShowItself) {
    const TestBundle agent = tool("Agent", kAgent);
    agent.install("agent");
    ChildProcess running = start(agent);
    ASSERT_EQ(running.waitForLine(), "main");
    ASSERT_EQ(running.waitForLine(), "first turn");
    EXPECT_EQ(courseOf(timer_, {"show-agent", "no-loop"}).status, 7);
    EXPECT_EQ(running.waitForLine(), "reopen|--show-ui");
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(StartUp, HasOneClientWhoeverAsksForItFirst) {
    EXPECT_THAT(courseOf(timer_, {"many-clients", "no-loop"}).lines,
                ElementsAre("main", "one client"));
}

// ---- what a start costs others

TEST_F(StartUp, OpensNoModuleNoConnectionAndStartsNoThread) {
    allowOnly({"Timer"});
    const Course course = courseOf(timer_, {"look", "no-loop"});
    EXPECT_THAT(course.lines, ElementsAre("main", "threads 1"));
}

}  // namespace
}  // namespace utilia::test
