#include "Applications/ToolLauncher/ToolLauncher.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Platform/LoginItems.h"
#include "Common/Platform/Port.h"
#include "Common/Platform/UniqueFd.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/ReportPipe.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"

namespace utilia::launcher {
namespace {

using platform::RunningApplication;
using test::ChildProcess;
using test::ReportPipe;
using test::TemporaryHome;
using test::TestBundle;
using test::TestLog;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Fate = ToolLauncher::Fate;
using Step = ToolLauncher::Step;

namespace fs = std::filesystem;

// What is launched outlives its launcher, and ends with the test: it holds on to a named pipe that
// the test has open.
void outliveLauncher() { prctl(PR_SET_PDEATHSIG, 0); }
void waitForEndOf(const std::string& leash) {
    const int descriptor = open(leash.c_str(), O_RDONLY | O_CLOEXEC);
    char byte = 0;
    while (read(descriptor, &byte, 1) > 0) {
    }
}

// Passes once the test opens the named pipe.
void passGate(const std::string& gate) { close(open(gate.c_str(), O_RDONLY | O_CLOEXEC)); }

// A tool: reports that it has begun, passes the gate, reports that it is up, and is listed as
// running only after that. So what a launcher starts after it saw it run is reported later.
// Arguments: report pipe, gate, leash, identifier, and one more when the test started it itself.
UTILIA_CHILD_ROLE(listedTool) {
    outliveLauncher();
    const std::string& identifier = self.arguments.at(3);
    ReportPipe::report(self.arguments[0], "begin " + identifier);
    passGate(self.arguments[1]);
    ReportPipe::report(self.arguments[0], "up " + identifier);
    if (!RunningApplication::registerCurrentApplication()) return 1;
    if (self.arguments.size() > 4) self.say("up");
    waitForEndOf(self.arguments[2]);
    return 0;
}

// An agent that is listed first and has its port only behind the gate.
UTILIA_CHILD_ROLE(slowAgent) {
    outliveLauncher();
    ReportPipe::report(self.arguments.at(0), "begin agent");
    if (!RunningApplication::registerCurrentApplication()) return 1;
    passGate(self.arguments[1]);
    ReportPipe::report(self.arguments[0], "up agent");
    const auto port = platform::Port::port();
    if (!platform::PortNameServer::systemDefaultPortNameServer().registerPort(port, kAgentPortName))
        return 1;
    waitForEndOf(self.arguments[2]);
    return 0;
}

UTILIA_CHILD_ROLE(failAtOnce) { return 3; }

class ToolLauncherTest : public testing::Test {
protected:
    ToolLauncherTest() {
        for (const std::string& path : {gate_, leash_}) {
            if (mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("mkfifo " + path);
        }
        leashEnd_.reset(open(leash_.c_str(), O_RDWR | O_CLOEXEC));
    }

    void openGate() { gateEnd_.reset(open(gate_.c_str(), O_RDWR | O_CLOEXEC)); }

    static std::string identifierOf(const std::string& name) {
        return "com.korvane.utilia." + name;
    }
    TestBundle bundleOf(const std::string& name, Dictionary info = {}) {
        test::TestBundleOptions options;
        options.name = name;
        options.bundleIdentifier = identifierOf(name);
        options.info = std::move(info);
        return TestBundle(home_, options);
    }
    std::vector<std::string> argumentsOf(const std::string& identifier) const {
        return {reports_.path(), gate_, leash_, identifier};
    }
    TestBundle install(const std::string& name, const std::string& role = "listedTool",
                       Dictionary info = {}) {
        TestBundle bundle = bundleOf(name, std::move(info));
        bundle.install(role, argumentsOf(identifierOf(name)));
        return bundle;
    }
    TestBundle installAgent(const std::string& role = "slowAgent") {
        test::TestBundleOptions options;
        options.name = "Korvane Utilia";
        options.bundleIdentifier = "com.korvane.utilia";
        TestBundle bundle(home_, options);
        bundle.install(role, argumentsOf("com.korvane.utilia"));
        return bundle;
    }
    static Dictionary agentNeeded() {
        return {{"ToolCapabilities", Dictionary{{"NeedAgentForWork", true}}}};
    }
    void list(const std::vector<std::string>& names) {
        Array tools;
        for (const std::string& name : names) tools.append(identifierOf(name));
        UtiliaToolLauncher::getDefaults()->setObject(tools, kLaunchAtLoginToolsKey);
    }
    ChildProcess start(const TestBundle& bundle) {
        auto arguments = argumentsOf(bundle.options().bundleIdentifier);
        arguments.push_back("with a channel");
        auto child = bundle.role("listedTool", arguments);
        EXPECT_EQ(child.waitForLine(), "up");
        return child;
    }
    std::vector<std::string> nextReports(std::size_t count) {
        std::vector<std::string> lines;
        while (lines.size() < count) lines.push_back(reports_.waitForLine().value_or("(none)"));
        return lines;
    }
    static bool isRunning(const std::string& name) {
        return !RunningApplication::runningApplicationsWithBundleIdentifier(identifierOf(name))
                    .empty();
    }

    TemporaryHome home_;
    TestLog log_;
    ReportPipe reports_{home_.path()};
    std::string gate_ = home_.path() / "gate";
    std::string leash_ = home_.path() / "leash";
    platform::UniqueFd gateEnd_;
    platform::UniqueFd leashEnd_;
};

TEST_F(ToolLauncherTest, WithoutAListThereIsNothingToDo) {
    ToolLauncher launcher;
    EXPECT_THAT(launcher.plan(), IsEmpty());
    launcher.run();
    UtiliaToolLauncher::getDefaults()->setObject("no list", kLaunchAtLoginToolsKey);
    launcher.run();
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ToolLauncherTest, ThePlanTellsTheFateOfEachToolOnce) {
    fs::remove_all(install("Absent").path());
    const TestBundle running = install("Running");
    install("Needy", "listedTool", agentNeeded());
    install("Plain", "listedTool", {{"ToolCapabilities", Dictionary{{"NeedAgentForWork", false}}}});
    openGate();
    const auto child = start(running);
    UtiliaToolLauncher::getDefaults()->setObject(
        Array{identifierOf("Needy"), 4711, identifierOf("Absent"), identifierOf("Running"),
              "../evil", identifierOf("Plain"), identifierOf("Needy")},
        kLaunchAtLoginToolsKey);
    EXPECT_THAT(ToolLauncher().plan(),
                ElementsAre(Step{identifierOf("Needy"), Fate::Start, true},
                            Step{identifierOf("Absent"), Fate::NotInstalled, false},
                            Step{identifierOf("Running"), Fate::Running, false},
                            Step{"../evil", Fate::NotInstalled, false},
                            Step{identifierOf("Plain"), Fate::Start, false}));
}

TEST_F(ToolLauncherTest, StartsWhatIsThereAndSaysWhatItPassesOver) {
    const TestBundle running = install("Running");
    install("First");
    install("Second");
    openGate();
    const auto child = start(running);
    nextReports(2);
    list({"First", "Gone", "Running", "Second"});
    ToolLauncher(nullptr, {.launchesAtOnce = 1}).run();
    EXPECT_THAT(nextReports(4),
                ElementsAre("begin com.korvane.utilia.First", "up com.korvane.utilia.First",
                            "begin com.korvane.utilia.Second", "up com.korvane.utilia.Second"));
    EXPECT_THAT(log_.lines(),
                ElementsAre("Tool com.korvane.utilia.Gone is not started: it is not installed.",
                            "Tool com.korvane.utilia.Running is not started: it runs already."));
    EXPECT_TRUE(isRunning("First"));
    EXPECT_TRUE(isRunning("Second"));
}

TEST_F(ToolLauncherTest, AToolThatFailsIsLoggedAndTheOthersStartAllTheSame) {
    install("Failing", "failAtOnce");
    install("Good");
    openGate();
    list({"Failing", "Good"});
    ToolLauncher(nullptr, {.launchesAtOnce = 1}).run();
    EXPECT_TRUE(isRunning("Good"));
    ASSERT_EQ(log_.lines().size(), 1u);
    EXPECT_THAT(log_.lines()[0],
                testing::StartsWith("Tool com.korvane.utilia.Failing cannot be started: "));
    EXPECT_THAT(log_.lines()[0], testing::EndsWith("ended with status 3"));
}

TEST_F(ToolLauncherTest, AToolThatCrashedIsStartedAgain) {
    const TestBundle crashed = install("Crashed");
    openGate();
    auto child = start(crashed);
    list({"Crashed"});
    EXPECT_EQ(ToolLauncher().plan().at(0).fate, Fate::Running);
    child.kill();
    EXPECT_EQ(ToolLauncher().plan().at(0).fate, Fate::Start);
    ToolLauncher().run();
    EXPECT_TRUE(isRunning("Crashed"));
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ToolLauncherTest, OfFiftyToolsOnlyAFewAreOnTheirWayUpAtOnce) {
    constexpr std::size_t kTools = 50;
    constexpr std::size_t kAtOnce = 4;
    std::vector<std::string> names;
    for (std::size_t i = 0; i < kTools; ++i) {
        names.push_back("Tool" + std::to_string(i));
        install(names.back());
    }
    list(names);
    ToolLauncher launcher(nullptr, {.launchesAtOnce = kAtOnce});
    std::thread runner([&] { launcher.run(); });

    // All that may start has started, and is stuck at the gate.
    std::vector<std::string> reports = nextReports(kAtOnce);
    openGate();
    for (const std::string& line : nextReports(2 * kTools - kAtOnce)) reports.push_back(line);
    runner.join();

    std::size_t onTheWay = 0;
    std::size_t most = 0;
    for (const std::string& line : reports) {
        ASSERT_TRUE(line.starts_with("begin ") || line.starts_with("up ")) << line;
        if (line.starts_with("begin ")) most = std::max(most, ++onTheWay);
        if (line.starts_with("up ")) --onTheWay;
    }
    EXPECT_EQ(most, kAtOnce);
    EXPECT_EQ(onTheWay, 0u);
    for (const std::string& name : names) EXPECT_TRUE(isRunning(name)) << name;
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ToolLauncherTest, TheAgentIsUpBeforeAToolThatNeedsItIsStarted) {
    installAgent();
    install("Plain");
    install("Needy", "listedTool", agentNeeded());
    list({"Plain", "Needy"});
    ToolLauncher launcher(nullptr, {.launchesAtOnce = 1, .agentWait = std::chrono::seconds(60)});
    std::thread runner([&] { launcher.run(); });
    EXPECT_THAT(nextReports(1), ElementsAre("begin agent"));
    openGate();
    EXPECT_THAT(nextReports(5),
                ElementsAre("up agent", "begin com.korvane.utilia.Plain",
                            "up com.korvane.utilia.Plain", "begin com.korvane.utilia.Needy",
                            "up com.korvane.utilia.Needy"));
    runner.join();
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(ToolLauncherTest, NobodyNeedsTheAgentSoNobodyStartsIt) {
    installAgent();
    install("Plain");
    openGate();
    list({"Plain"});
    ToolLauncher().run();
    EXPECT_THAT(nextReports(2),
                ElementsAre("begin com.korvane.utilia.Plain", "up com.korvane.utilia.Plain"));
    EXPECT_TRUE(
        RunningApplication::runningApplicationsWithBundleIdentifier("com.korvane.utilia").empty());
}

TEST_F(ToolLauncherTest, AnAgentWithoutAPortIsWaitedForNoLongerThanTheLimit) {
    installAgent();
    install("Needy", "listedTool", agentNeeded());
    list({"Needy"});
    ToolLauncher launcher(nullptr, {.agentWait = std::chrono::milliseconds(50)});
    std::thread runner([&] { launcher.run(); });
    // The agent never gets past the gate while this waits: the tool begins without its port.
    EXPECT_THAT(nextReports(2), ElementsAre("begin agent", "begin com.korvane.utilia.Needy"));
    openGate();
    runner.join();
    EXPECT_THAT(log_.lines(), ElementsAre("The agent has no port yet. The tools are started "
                                          "without waiting longer."));
}

TEST_F(ToolLauncherTest, WithoutAnAgentThoseThatNeedItAreNotStarted) {
    install("Needy", "listedTool", agentNeeded());
    install("Plain");
    openGate();
    list({"Needy", "Plain"});
    ToolLauncher().run();
    EXPECT_THAT(nextReports(2),
                ElementsAre("begin com.korvane.utilia.Plain", "up com.korvane.utilia.Plain"));
    EXPECT_FALSE(isRunning("Needy"));
    EXPECT_THAT(
        log_.lines(),
        ElementsAre("The agent cannot be started: com.korvane.utilia: no desktop entry names this "
                    "application",
                    "Tool com.korvane.utilia.Needy is not started: it needs the agent."));
}

TEST_F(ToolLauncherTest, AStoppedLauncherStartsNothingMore) {
    for (const char* name : {"First", "Second", "Third"}) install(name);
    list({"First", "Second", "Third"});
    ToolLauncher launcher(nullptr, {.launchesAtOnce = 1});
    std::thread runner([&] { launcher.run(); });
    EXPECT_THAT(nextReports(1), ElementsAre("begin com.korvane.utilia.First"));
    launcher.stop();
    openGate();
    runner.join();
    EXPECT_THAT(nextReports(1), ElementsAre("up com.korvane.utilia.First"));
    EXPECT_FALSE(isRunning("Second"));
    EXPECT_FALSE(isRunning("Third"));
    EXPECT_THAT(log_.lines(),
                ElementsAre("No further tools are started: the launcher is asked to end."));
}

std::string contentOf(const fs::path& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// The application as it is built, inside the agent of the test.
class ToolLauncherApplication : public ToolLauncherTest {
protected:
    ToolLauncherApplication() {
        fs::create_directories(fs::path(agent_.path()) / "Contents/Applications");
        fs::copy(UTILIA_TOOL_LAUNCHER_BUNDLE, bundle_, fs::copy_options::recursive);
        // Log lines go to stderr where there is no journal.
        constexpr const char* kJournal = "/run/systemd/journal";
        if (fs::exists(kJournal)) mounts_.limitSpace(kJournal, 64 * 1024);
    }

    ChildProcess launch(const std::vector<std::string>& arguments = {}) {
        test::ChildProcessOptions options;
        options.standardOutput = home_.path() / "out";
        options.standardError = home_.path() / "err";
        options.mounts = &mounts_;
        return ChildProcess::program(bundle_ / "Contents/Linux/utilia-tool-launcher", arguments,
                                     options);
    }
    std::string errors() const { return contentOf(home_.path() / "err"); }

    test::PrivateMounts mounts_;
    TestBundle agent_ = installAgent();
    fs::path bundle_ = fs::path(UtiliaToolLauncher::launchHelperURL().value_or(""));
};

TEST_F(ToolLauncherApplication, StartsTheListAfterTheAgentAndEnds) {
    const TestBundle running = install("Running");
    install("Needy", "listedTool", agentNeeded());
    openGate();
    const auto child = start(running);
    nextReports(2);
    list({"Running", "Gone", "Needy"});
    auto launcher = launch();
    EXPECT_EQ(launcher.waitForExit(), 0);
    EXPECT_THAT(nextReports(4),
                ElementsAre("begin agent", "up agent", "begin com.korvane.utilia.Needy",
                            "up com.korvane.utilia.Needy"));
    EXPECT_TRUE(isRunning("Needy"));
    const std::string log = errors();
    const auto first = log.find("Tool com.korvane.utilia.Running is not started: it runs already.");
    const auto second =
        log.find("Tool com.korvane.utilia.Gone is not started: it is not installed.");
    EXPECT_NE(first, std::string::npos) << log;
    EXPECT_NE(second, std::string::npos) << log;
    EXPECT_LT(first, second);
    EXPECT_EQ(contentOf(home_.path() / "out"), "");
}

TEST_F(ToolLauncherApplication, DoesNotStartWhatTheAdministratorDoesNotAllow) {
    mounts_.writeSettings(R"({"WhiteToolsList": ["Timer"]})");
    install("FreeMemory");
    install("Timer");
    install("NoToolOfTheCatalogue");
    openGate();
    list({"FreeMemory", "Timer", "NoToolOfTheCatalogue"});
    auto dryRun = launch({"--dry-run"});
    EXPECT_EQ(dryRun.waitForExit(), 0);
    EXPECT_EQ(contentOf(home_.path() / "out"),
              "restricted     com.korvane.utilia.FreeMemory\n"
              "start          com.korvane.utilia.Timer\n"
              "start          com.korvane.utilia.NoToolOfTheCatalogue\n");
    auto launcher = launch();
    EXPECT_EQ(launcher.waitForExit(), 0);
    EXPECT_FALSE(isRunning("FreeMemory"));
    EXPECT_TRUE(isRunning("Timer"));
    EXPECT_TRUE(isRunning("NoToolOfTheCatalogue"));
    EXPECT_THAT(errors(), HasSubstr("Tool com.korvane.utilia.FreeMemory is not started: the "
                                    "administrator does not allow it."));
}

TEST_F(ToolLauncherApplication, IsStartedByTheEntryThatTheListPutsThere) {
    install("Plain");
    openGate();
    ASSERT_TRUE(UtiliaToolLauncher::addToolToLaunchAtLogin(identifierOf("Plain")));
    const auto items = platform::LoginItems::create()->snapshot();
    ASSERT_EQ(items->size(), 1u);
    test::ChildProcessOptions options;
    options.mounts = &mounts_;
    auto session = ChildProcess::program(UTILIA_GIO, {"launch", (*items)[0].path()}, options);
    EXPECT_EQ(session.waitForExit(), 0);
    EXPECT_THAT(nextReports(2),
                ElementsAre("begin com.korvane.utilia.Plain", "up com.korvane.utilia.Plain"));
}

// Every process that loads the framework does it before its own code runs.
TEST_F(ToolLauncherApplication, LoadingTheFrameworkMigratesOnce) {
    test::TestBundleOptions options;
    options.name = "Hide Menu Icons";
    options.bundleIdentifier = "com.example.legacy";
    options.folder = home_.path() / "old";
    const TestBundle legacy(home_, options);
    ASSERT_TRUE(platform::LoginItems::create()->insertAtEnd(legacy.path()));
    auto first = launch({"--help"});
    EXPECT_EQ(first.waitForExit(), 0);
    EXPECT_THAT(errors(), HasSubstr("Tool com.korvane.utilia.HideMenuIcons is migrated to "
                                    "UtiliaToolLauncher."));
    EXPECT_TRUE(UtiliaToolLauncher::isToolInLaunchAtLogin("com.korvane.utilia.HideMenuIcons"));
    EXPECT_EQ(UtiliaToolLauncher::findAppInLoginItems("Hide Menu Icons.app"), std::nullopt);
    EXPECT_EQ(UtiliaToolLauncher::findAppInLoginItems("Utilia Tool Launcher.app"),
              bundle_.string());
    fs::remove(home_.path() / "err");
    auto second = launch({"--help"});
    EXPECT_EQ(second.waitForExit(), 0);
    EXPECT_EQ(errors(), "");
}

TEST_F(ToolLauncherApplication, EndsInAnOrderlyWayWithTheSession) {
    install("First");
    install("Second");
    for (int i = 0; i < 8; ++i) install("Further" + std::to_string(i));
    std::vector<std::string> names{"First", "Second"};
    for (int i = 0; i < 8; ++i) names.push_back("Further" + std::to_string(i));
    list(names);
    auto launcher = launch();
    // Four are at the gate; the launcher is asked to end, and only then are they let through.
    const auto begun = nextReports(4);
    launcher.signal(SIGTERM);
    ASSERT_TRUE(test::eventually([this] {
        return errors().find("No further tools are started: the launcher is asked to end.") !=
               std::string::npos;
    }));
    openGate();
    EXPECT_EQ(launcher.waitForExit(), 0);
    std::size_t running = 0;
    for (const std::string& name : names) running += isRunning(name) ? 1 : 0;
    EXPECT_EQ(running, 4u);
}

TEST_F(ToolLauncherApplication, ADryRunStartsNothing) {
    install("Needy", "listedTool", agentNeeded());
    install("Plain");
    list({"Needy", "Gone", "Plain"});
    auto launcher = launch({"--dry-run"});
    EXPECT_EQ(launcher.waitForExit(), 0);
    EXPECT_EQ(contentOf(home_.path() / "out"),
              "start          com.korvane.utilia.Needy (needs the agent)\n"
              "not installed  com.korvane.utilia.Gone\n"
              "start          com.korvane.utilia.Plain\n");
    EXPECT_FALSE(isRunning("Needy"));
    EXPECT_FALSE(isRunning("Plain"));
}

TEST_F(ToolLauncherApplication, ExplainsItself) {
    auto help = launch({"--help"});
    EXPECT_EQ(help.waitForExit(), 0);
    EXPECT_THAT(contentOf(home_.path() / "out"), HasSubstr("Usage: utilia-tool-launcher"));
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--nonsense"}, {"--help", "more"}, {"--dry-run", "more"}}) {
        auto wrong = launch(arguments);
        EXPECT_EQ(wrong.waitForExit(), 2);
        EXPECT_THAT(errors(), HasSubstr("Usage: utilia-tool-launcher"));
    }
}

}  // namespace
}  // namespace utilia::launcher
