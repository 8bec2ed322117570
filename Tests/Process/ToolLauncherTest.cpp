#include "Applications/ToolLauncher/ToolLauncher.h"

#include <algorithm>
#include <filesystem>
#include <thread>

#include "Tests/Process/ToolLauncherFixture.h"

namespace utilia::launcher {
namespace {

using platform::RunningApplication;
using test::TestBundle;
using testing::ElementsAre;
using testing::IsEmpty;
using Fate = ToolLauncher::Fate;
using Step = ToolLauncher::Step;

namespace fs = std::filesystem;

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
    EXPECT_EQ(ToolLauncher::Limits().agentWait, std::chrono::seconds(5));
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
}  // namespace
}  // namespace utilia::launcher
