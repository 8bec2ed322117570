#include <csignal>

#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"
#include "Tests/Process/Agent/AgentFixture.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/VirtualDisplay.h"

// The agent's window, on a display of the test's own.

namespace utilia::agent {
namespace {

using test::ChildProcess;
using test::runProgram;
using test::VirtualDisplay;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* kTitle = "Korvane Utilia";

class AgentWindowTest : public AgentApplicationTest {
protected:
    Environment onScreen(const std::string& language = "en") const {
        Environment all = display_.environment();
        all["LANGUAGE"] = language;
        all["DBUS_SESSION_BUS_ADDRESS"] = bus_ ? bus_->address() : "disabled:";
        return all;
    }
    // A second start, which ends when it has handed its arguments over.
    void startAgain(const std::vector<std::string>& arguments) const {
        auto second = startAgent(onScreen(), arguments);
        EXPECT_EQ(second.waitForExit(), 0);
    }

    // Dark or light, where the window has nothing.
    bool becomes(const std::string& color) const {
        const std::string window = display_.waitForWindow(kTitle);
        return test::eventually([&] {
            const auto size = display_.sizeOfWindow(window);
            return display_.colorInWindow(window, 4, size.height - 4) == color;
        });
    }
    // What tells the colours; it says "ready" when it is there.
    ChildProcess startPortal(const std::vector<std::string>& settings) const {
        test::ChildProcessOptions options;
        options.environment = {{"DBUS_SESSION_BUS_ADDRESS", bus_->address()}};
        options.diesWithTest = true;
        std::vector<std::string> arguments{test::places::kSettingsPortal, "new"};
        arguments.insert(arguments.end(), settings.begin(), settings.end());
        auto portal = ChildProcess::program(kPython, arguments, options);
        EXPECT_EQ(portal.waitForLine(), "ready");
        return portal;
    }

    test::TemporaryFolder displayFolder_;
    VirtualDisplay display_{displayFolder_.path()};
};

TEST_F(AgentWindowTest, OpensWithoutASessionBusAndSaysWhyNothingIsInThePanel) {
    setenv("XDG_SESSION_ID", "1", 1);
    install(timer_);
    // Also with the first start in a login, and again with each one.
    for (int start = 0; start < 2; ++start) {
        auto agent = startAgent(onScreen());
        display_.waitForWindow(kTitle);
        agent.signal(SIGTERM);
        EXPECT_EQ(agent.waitForExit(), 0);
        EXPECT_THAT(log(), HasSubstr("no status icon, and nothing is published: there is no "
                                     "session bus"));
        std::filesystem::remove(home_.path() / "agent.log");
    }
    unsetenv("XDG_SESSION_ID");
}

TEST_F(AgentWindowTest, AnswersHelpAndVersionAndRefusesTheRestWithoutADisplay) {
    const std::map<std::string, std::string> nowhere{{"DISPLAY", ":4711"}};
    const auto run = [&](const std::string& word) {
        return runProgram({test::places::kAgentProgram, word}, nowhere);
    };
    EXPECT_THAT(run("--help").text, StartsWith("Usage: korvane-utilia [--show-ui]\n"));
    EXPECT_EQ(run("--help").status, 0);
    EXPECT_EQ(run("--version").text, "korvane-utilia " UTILIA_VERSION);
    for (const std::string wrong : {"--shwo-ui", "-x", "word", "--turn-off"}) {
        const auto refused = run(wrong);
        EXPECT_EQ(refused.status, 2) << wrong;
        EXPECT_THAT(refused.errors, HasSubstr("korvane-utilia: \"" + wrong + "\" is "));
    }
}

TEST_F(AgentWindowTest, OpensWithoutAPanelWhenSomebodyStartsTheAgentFirst) {
    startBus();
    auto agent = startAgent(onScreen());
    display_.waitForWindow(kTitle);
}

TEST_F(AgentWindowTest, StaysClosedWithoutAPanelWhenTheSessionStartsTheAgent) {
    startBus();
    std::filesystem::create_directories(home_.config() / "autostart");
    std::ofstream(home_.config() / "autostart/com.korvane.utilia.desktop")
        << "[Desktop Entry]\nType=Application\nName=Korvane Utilia\nExec=\""
        << test::places::kAgentProgram << "\"\n";
    auto agent = startAgent(onScreen());
    // The agent hears that there is no panel before it can answer.
    for (int times = 0; times < 2; ++times) {
        EXPECT_TRUE(test::eventually([&] { return published() == "(@aa{sv} [],)"; }));
    }
    EXPECT_FALSE(display_.hasWindow(kTitle));
    startAgain({});
    display_.waitForWindow(kTitle);
}

TEST_F(AgentWindowTest, StaysClosedWhenThePanelEnds) {
    startBus();
    auto panel = startPanel();
    auto agent = startAgent(onScreen());
    expectItem(panel, agent);
    ASSERT_TRUE(test::eventually([&] { return ask(panel, "asked") == "yes"; }));
    EXPECT_NE(ask(panel, "menu"), "no answer") << "the agent has its answer before this";
    panel.kill();
    auto next = startPanel();
    expectItem(next, agent);
    EXPECT_FALSE(display_.hasWindow(kTitle));
}

TEST_F(AgentWindowTest, StaysClosedWhenTheBusEndsBeforeThePanelHasAnswered) {
    install(timer_);
    startBus();
    auto panel = startPanel();
    panel.signal(SIGSTOP);
    auto agent = startAgent(onScreen());
    // What is to be asked of the panel is asked together with this.
    ASSERT_TRUE(test::eventually(
        [&] { return published().find("com.korvane.utilia.Timer") != std::string::npos; }));
    // So that the next panel is there before it is looked for.
    agent.signal(SIGSTOP);
    bus_.reset();
    startBus();
    auto next = startPanel();
    agent.signal(SIGCONT);
    expectItem(next, agent);
    ASSERT_TRUE(test::eventually([&] { return ask(next, "asked") == "yes"; }));
    EXPECT_NE(ask(next, "menu"), "no answer") << "the agent has its answer before this";
    EXPECT_FALSE(display_.hasWindow(kTitle));
}

TEST_F(AgentWindowTest, KeepsItsColoursOnABusWherePreferencesAreNotKnown) {
    startBus();
    auto portal = startPortal({"1"});
    auto agent = startAgent(onScreen(), {"--show-ui"});
    ASSERT_TRUE(becomes("#2A2B2E"));
    // So that the next portal is there before it is asked.
    agent.signal(SIGSTOP);
    bus_.reset();
    startBus();
    auto next = startPortal({});
    agent.signal(SIGCONT);
    // Two settings, each in the newer and the older form.
    for (int times = 0; times < 4; ++times) EXPECT_EQ(next.waitForLine(), "refused");
    next.say("contrast 1");
    EXPECT_TRUE(becomes("#000000")) << "dark colours are still preferred";
    next.say("scheme 0");
    EXPECT_TRUE(becomes("#FFFFFF"));
}

TEST_F(AgentWindowTest, EndsWithAClearMessageWithoutADisplay) {
    auto environment = onScreen();
    environment["DISPLAY"] = ":4711";
    auto agent = startAgent(environment);
    EXPECT_EQ(agent.waitForExit(), 1);
    EXPECT_THAT(
        log(),
        HasSubstr("korvane-utilia: there is no display: could not connect to display :4711\n"));
}

TEST_F(AgentWindowTest, OpensWhenTheAgentIsStartedAgainAndLeavesItRunningWhenClosed) {
    startBus();
    auto panel = startPanel();
    auto agent = startAgent(onScreen());
    expectItem(panel, agent);
    EXPECT_FALSE(display_.hasWindow(kTitle)) << "there is a panel";
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{}, std::vector<std::string>{"--show-ui"}}) {
        startAgain(arguments);
        display_.waitForWindow(kTitle);
        display_.press({"Escape"});
        EXPECT_TRUE(test::eventually([&] { return !display_.hasWindow(kTitle); }));
    }
    ask(panel, "activate");
    display_.waitForWindow(kTitle);
    display_.press({"ctrl+w"});
    EXPECT_TRUE(test::eventually([&] { return !display_.hasWindow(kTitle); }));
    EXPECT_TRUE(agent.isRunning());
    EXPECT_EQ(ask(panel, "click Settings"), "done");
    display_.waitForWindow(kTitle);
}

TEST_F(AgentWindowTest, SwitchesUsageReportingByKeyboardAloneAndShowsWhatIsSent) {
    startBus();
    auto panel = startPanel();
    auto agent = startAgent(onScreen());
    expectItem(panel, agent);
    EXPECT_EQ(ask(panel, "click Settings"), "done");
    display_.waitForWindow(kTitle);
    const auto isDisabled = [] {
        return UtiliaToolLauncher::getDefaults()->boolForKey("CEPDisabled");
    };
    ASSERT_FALSE(isDisabled());
    display_.press({"Tab", "Tab", "space"});
    EXPECT_TRUE(test::eventually(isDisabled));
    display_.press({"space"});
    EXPECT_TRUE(test::eventually([&] { return !isDisabled(); }));
    display_.press({"Tab", "space"});
    display_.waitForWindow("What will be sent next");
}

TEST_F(AgentWindowTest, ShowsTheIconThatABundleNamesUntilTheToolHasRun) {
    const auto installWithIcon = [this](const std::string& name, const std::string& icon) {
        const test::TestBundle tool(home_, {.name = name,
                                            .bundleIdentifier = "com.korvane.utilia." + name,
                                            .info = {{"CFBundleIconFile", icon}}});
        std::filesystem::create_directories(tool.path() + "/Contents/Resources");
        install(tool);
        return tool.path() + "/Contents/Resources/" + icon;
    };
    std::ofstream(installWithIcon("QuickNotes", "notes.svg"))
        << "<svg xmlns='http://www.w3.org/2000/svg' width='8' height='8'>"
           "<rect width='8' height='8' fill='#c81e5a'/></svg>";
    ASSERT_EQ(test::runProgram({"convert", "-size", "64x64", "xc:#1e5ac8",
                                "png:" + installWithIcon("ScreenRuler", "ruler.png")})
                  .status,
              0);
    std::ofstream(installWithIcon("SpeakText", "text.png")) << "no picture";
    auto agent = startAgent(onScreen(), {"--show-ui"});
    display_.waitForWindow(kTitle);
    const auto shows = [this](const std::string& color) {
        return display_.pixels(0, 0, 1000, 700).find(color) != std::string::npos;
    };
    EXPECT_TRUE(test::eventually([&] { return shows("\xc8\x1e\x5a"); })) << "an SVG picture";
    EXPECT_TRUE(test::eventually([&] { return shows("\x1e\x5a\xc8"); })) << "a PNG picture";
}

TEST_F(AgentWindowTest, StartsAToolByKeyboardAlone) {
    timer_.install("startedTool", {reports_.path(), "timer"});
    clock_.install("startedTool", {reports_.path(), "clock"});
    auto agent = startAgent(onScreen(), {"--show-ui"});
    display_.waitForWindow(kTitle);
    display_.press({"Down", "Return"});
    EXPECT_EQ(reports_.waitForLine(), "clock") << "the second one, by name";
}

}  // namespace
}  // namespace utilia::agent
