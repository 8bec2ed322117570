// The launcher as it is built, inside the agent of the test.

#include <filesystem>
#include <fstream>
#include <sstream>

#include "Common/Platform/LoginItems.h"
#include "Tests/Process/ToolLauncherFixture.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/RecordingPort.h"

namespace utilia::launcher {
namespace {

using test::ChildProcess;
using test::TestBundle;
using testing::ElementsAre;
using testing::HasSubstr;

namespace fs = std::filesystem;

std::string contentOf(const fs::path& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

class ToolLauncherApplication : public ToolLauncherTest {
protected:
    ToolLauncherApplication() {
        fs::create_directories(fs::path(agent_.path()) / "Contents/Applications");
        fs::copy(test::places::kToolLauncherBundle, bundle_, fs::copy_options::recursive);
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
    // Whoever is started all the same is through it before the launcher ends, which waits for it.
    openGate();
    list({"Needy", "Gone", "Plain"});
    auto launcher = launch({"--dry-run"});
    EXPECT_EQ(launcher.waitForExit(), 0);
    EXPECT_EQ(contentOf(home_.path() / "out"),
              "start          com.korvane.utilia.Needy (needs the agent)\n"
              "not installed  com.korvane.utilia.Gone\n"
              "start          com.korvane.utilia.Plain\n");
    EXPECT_FALSE(isRunning("Needy"));
    EXPECT_FALSE(isRunning("Plain"));
    EXPECT_EQ(reports_.waitForLine(std::chrono::milliseconds(0)), std::nullopt);
}

TEST_F(ToolLauncherApplication, ExplainsItself) {
    auto help = launch({"--help"});
    EXPECT_EQ(help.waitForExit(), 0);
    EXPECT_THAT(contentOf(home_.path() / "out"), HasSubstr("Usage: utilia-tool-launcher"));
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--nonsense"}, {"--help", "more"}, {"--dry-run", "more"}}) {
        fs::remove(home_.path() / "err");
        auto wrong = launch(arguments);
        EXPECT_EQ(wrong.waitForExit(), 2);
        EXPECT_THAT(errors(), HasSubstr("Usage: utilia-tool-launcher"));
    }
}

}  // namespace
}  // namespace utilia::launcher
