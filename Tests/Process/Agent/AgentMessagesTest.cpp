#include <csignal>
#include <filesystem>

#include <sys/stat.h>

#include "Common/Platform/Application.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/CEP/ReportFolder.h"
#include "Common/UtiliaCommon/Resources/VersionManager.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Common/UtiliaCommon/UtiliaCommon.h"
#include "Tests/Process/Agent/AgentFixture.h"
#include "Tests/Process/UnprivilegedUser.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/PrivateNetwork.h"
#include "Tests/Support/ScreenReader.h"
#include "Tests/Support/StopWithoutLocks.h"
#include "Tests/Support/VirtualDisplay.h"

// What the agent's window says: when something is amiss, and what its settings tell.

namespace utilia::agent {
namespace {

using test::ChildProcess;
using test::RecordingPort;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kTitle = "Korvane Utilia";
constexpr const char* kNoTray = "Your desktop shows no status icons";
constexpr const char* kNoTools = "No tools are installed";

// A tool of two lines, as tools are.
UTILIA_CHILD_ROLE(presentingTool) {
    auto& application = platform::Application::sharedApplication();
    application.finishLaunching();
    auto& client = UtiliaCommon::toolDataClientProvider();
    client.setMenuText("it is me");
    client.setToolStatus(kToolStatusPermanent);
    test::ReportPipe::report(self.arguments.at(0), "started");
    return application.run();
}

class AgentMessagesTest : public AgentApplicationTest {
protected:
    AgentMessagesTest() {
        startBus();
        reader_ = std::make_unique<test::ScreenReader>(*bus_, home_.path());
    }
    Environment audible() const {
        Environment all = display_.environment();
        all.merge(reader_->environment());
        all["LANGUAGE"] = "en";
        return all;
    }
    // With its window, in which the tool is selected.
    ChildProcess open(const test::PrivateMounts* mounts = nullptr) const {
        auto agent = startAgent(audible(), {"--show-ui"}, mounts);
        display_.waitForWindow(kTitle);
        return agent;
    }
    std::string heard() const {
        std::string all;
        for (const auto& element : reader_->read(kTitle, display_.environment())) {
            if (element.is("showing")) all += element.name + "\n";
        }
        return all;
    }
    // What is heard once it has the text, or as it is after a long while.
    std::string heardWith(const std::string& text) const {
        std::string all;
        (void)test::eventually([&] { return (all = heard()).find(text) != std::string::npos; });
        return all;
    }
    // The same for one text that has taken the place of another. A window that is changing may for a moment be heard
    // with neither.
    std::string heardInsteadOf(const std::string& gone, const std::string& there) const {
        std::string all;
        (void)test::eventually([&] {
            all = heard();
            return all.find(gone) == std::string::npos && all.find(there) != std::string::npos;
        });
        return all;
    }
    // Whether a switch that is heard is on; nothing where there is none.
    std::optional<bool> isSwitchedOn(const std::string& name) const {
        for (const auto& element : reader_->read(kTitle, display_.environment())) {
            if (element.name == name && element.is("showing")) return element.is("checked");
        }
        return std::nullopt;
    }
    // A photograph of the screen for people, where they ask for it.
    void photograph(const std::string& name) const {
        if (const char* const folder = std::getenv("UTILIA_PICTURES"))
            display_.photograph(std::filesystem::path(folder) / (name + ".png"));
    }
    void installPresenting() { timer_.install("presentingTool", {reports_.path()}); }
    // Chosen in the window, started, and heard of again.
    void expectToolStarts() {
        display_.press({"Return"});
        EXPECT_EQ(reports_.waitForLine(), "started");
        const std::string whole = "Timer, it is me, Running, Always shown";  // in two messages
        EXPECT_THAT(heardWith(whole), HasSubstr(whole));
    }
    // The tool runs, is stopped, and the window says that it does not respond. Answers its process.
    pid_t makeDeafTool() {
        expectToolStarts();
        const auto running =
            platform::RunningApplication::runningApplicationsWithBundleIdentifier(kTimer);
        const auto tool = static_cast<pid_t>(running.at(0).processIdentifier());
        test::stopWithoutLocks(tool, home_.path());
        // Until the tool has no room any more, and the first that waits has waited in vain.
        for (int i = 0; i < 7; ++i) display_.press(std::vector<std::string>(50, "Return"));
        EXPECT_THAT(heardWith("does not respond"), HasSubstr("Timer does not respond."));
        return tool;
    }

    std::unique_ptr<test::ScreenReader> reader_;
    test::TemporaryFolder displayFolder_;
    test::VirtualDisplay display_{displayFolder_.path()};
};

TEST_F(AgentMessagesTest, SayThatThereIsNoPanelUntilThereIsOne) {
    auto agent = open();
    EXPECT_THAT(heardWith(kNoTray), HasSubstr(kNoTray));
    photograph("no-panel");
    auto panel = startPanel();
    expectItem(panel, agent);
    EXPECT_THAT(heardInsteadOf(kNoTray, kNoTools),
                AllOf(HasSubstr(kNoTools), Not(HasSubstr("status icon"))));
}

TEST_F(AgentMessagesTest, SayItInTheLanguageOfTheUser) {
    for (const auto& [language, said] : {std::pair("de", "Ihr Desktop zeigt keine Statussymbole."),
                                         std::pair("ar", "سطح المكتب لا يعرض أيقونات الحالة.")}) {
        auto environment = audible();
        environment["LANGUAGE"] = language;
        auto agent = startAgent(environment, {"--show-ui"});
        display_.waitForWindow(kTitle);
        EXPECT_THAT(heardWith(said), HasSubstr(said));
        photograph(std::string("no-panel-") + language);
        agent.signal(SIGTERM);
        EXPECT_EQ(agent.waitForExit(), 0);
    }
}

// The programs that make a window heard end with their bus, so this one is seen.
TEST_F(AgentMessagesTest, LeaveEverythingUsableWhenTheBusIsLost) {
    installPresenting();
    auto panel = startPanel();
    auto agent = open();
    expectItem(panel, agent);
    reader_.reset();
    bus_.reset();
    EXPECT_TRUE(test::eventually(
        [&] { return log().find("the session bus is lost") != std::string::npos; }));
    photograph("bus-lost");
    display_.press({"Return"});
    EXPECT_EQ(reports_.waitForLine(), "started");
    EXPECT_TRUE(agent.isRunning()) << log();
    startBus();
    auto next = startPanel();
    expectItem(next, agent);
    EXPECT_TRUE(display_.hasWindow(kTitle));
}

TEST_F(AgentMessagesTest, SayThatAToolDoesNotRespondUntilItDoes) {
    installPresenting();
    auto agent = open();
    const pid_t tool = makeDeafTool();
    photograph("deaf-tool");
    kill(tool, SIGCONT);
    const std::string there = "Timer, it is me, Running";
    EXPECT_THAT(heardInsteadOf("does not respond", there),
                AllOf(HasSubstr(there), Not(HasSubstr("does not respond"))));
}

TEST_F(AgentMessagesTest, SayNothingOfADeafToolThatTheUserHasEnded) {
    installPresenting();
    auto agent = open();
    const pid_t tool = makeDeafTool();
    kill(tool, SIGKILL);
    const std::string there = "Not running";
    EXPECT_THAT(heardInsteadOf("does not respond", there),
                AllOf(HasSubstr(there), Not(HasSubstr("does not respond"))));
}

TEST_F(AgentMessagesTest, SayWhatIsNotKeptOnAReadOnlyHome) {
    installPresenting();
    test::PrivateMounts mounts;
    for (const auto& folder : {home_.config(), home_.data(), home_.state()})
        mounts.makeReadOnly(folder);
    auto agent = open(&mounts);
    EXPECT_THAT(heardWith("not kept"),
                HasSubstr("What you change is not kept: the folder " + home_.path().string()));
    photograph("read-only-home");
    expectToolStarts();
    // A login item that cannot be made is none; preferences last as long as the agent.
    display_.press({"alt+e"});
    const auto becomes = [&](const std::string& name, bool isOn) {
        return test::eventually([&] { return isSwitchedOn(name) == isOn; });
    };
    constexpr const char* kLogin = "Open Korvane Utilia at login";
    ASSERT_TRUE(becomes(kLogin, false));
    display_.press({"alt+l"});
    EXPECT_TRUE(test::eventually([&] {
        return log().find("Login items: mkdir " + (home_.config() / "autostart").string() +
                          ": Read-only file system") != std::string::npos;
    }));
    EXPECT_TRUE(becomes(kLogin, false));
    constexpr const char* kSuggest = "Suggest tools that I have not used";
    ASSERT_TRUE(becomes(kSuggest, true));
    display_.press({"alt+s"});
    EXPECT_TRUE(becomes(kSuggest, false));
    EXPECT_EQ(isSwitchedOn(kLogin), false);
    EXPECT_TRUE(agent.isRunning());
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.waitForExit(), 0);
}

TEST_F(AgentMessagesTest, SayOnceWhatIsNotKeptAlsoWhereThereIsAPanelAndTheSessionStartsTheAgent) {
    std::filesystem::create_directories(home_.config() / "autostart");
    std::ofstream(home_.config() / "autostart/com.korvane.utilia.desktop")
        << "[Desktop Entry]\nType=Application\nName=Korvane Utilia\nExec=\""
        << test::places::kAgentProgram << "\"\n";
    test::PrivateMounts mounts;
    for (const auto& folder : {home_.config(), home_.data(), home_.state()})
        mounts.makeReadOnly(folder);
    auto panel = startPanel();
    auto agent = startAgent(audible(), {}, &mounts);
    expectItem(panel, agent);
    display_.waitForWindow(kTitle);
    EXPECT_THAT(heardWith("not kept"),
                HasSubstr("What you change is not kept: the folder " + home_.path().string()));
    display_.press({"Escape"});
    ASSERT_TRUE(test::eventually([&] { return !display_.hasWindow(kTitle); }));
    panel.kill();
    auto next = startPanel();
    expectItem(next, agent);
    ASSERT_TRUE(test::eventually([&] { return ask(next, "asked") == "yes"; }));
    EXPECT_NE(ask(next, "menu"), "no answer") << "the agent has its answer before this";
    EXPECT_FALSE(display_.hasWindow(kTitle));
}

TEST_F(AgentMessagesTest, SayThatAToolOfTheMenuCannotBeStarted) {
    install(timer_);
    auto panel = startPanel();
    auto agent = startAgent(audible());
    expectItem(panel, agent);
    ASSERT_THAT(ask(panel, "menu"), HasSubstr("Timer"));
    EXPECT_FALSE(display_.hasWindow(kTitle));
    // It is there until it is started.
    std::filesystem::remove(timer_.program());
    for (int times = 0; times < 2; ++times) {
        EXPECT_EQ(ask(panel, "click Timer"), "done");
        EXPECT_NE(ask(panel, "menu"), "no answer") << "the click comes before this";
        EXPECT_THAT(heardWith("cannot be started"), HasSubstr("Timer cannot be started."));
    }
    photograph("cannot-start");
    // The second one has taken the place of the first.
    display_.press({"alt+c"});
    EXPECT_THAT(heardInsteadOf("cannot be started", "Timer, Not running"),
                AllOf(HasSubstr("Timer, Not running"), Not(HasSubstr("cannot be started"))));
}

TEST_F(AgentMessagesTest, SayWhatIsNotKeptInAHomeThatIsSomebodyElses) {
    installPresenting();
    const test::UnprivilegedUser user(home_);
    for (const auto& folder : {home_.config(), home_.data(), home_.state()})
        chmod(folder.c_str(), 0555);
    for (const auto& folder : {home_.path(), displayFolder_.path()}) chmod(folder.c_str(), 0755);
    user.own(reports_.path());
    chmod(display_.environment().at("XAUTHORITY").c_str(), 0644);
    test::ChildProcessOptions options;
    options.environment = audible();
    options.user = user.id();
    options.diesWithTest = true;
    options.standardError = home_.path() / "agent.log";
    auto agent = ChildProcess::program(test::places::kAgentProgram, {"--show-ui"}, options);
    display_.waitForWindow(kTitle);
    EXPECT_TRUE(agent.isRunning());
    display_.press({"Return"});
    EXPECT_EQ(reports_.waitForLine(), "started");
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.waitForExit(), 0);
    EXPECT_THAT(log(), HasSubstr("Permission denied"));
}

// ---- suggestions, login, what is new

// Has suggestions paused while it runs.
UTILIA_CHILD_ROLE(pausingTool) {
    platform::Application::sharedApplication().finishLaunching();
    CommonAuxiliary::sharedInstance().pauseToolsSuggestions(true, kClock);
    self.say("paused");
    while (self.waitForLine() == "resume")
        CommonAuxiliary::sharedInstance().pauseToolsSuggestions(false, kClock);
    return 0;
}

TEST_F(AgentMessagesTest, SuggestNothingWhileAToolHasThatPaused) {
    constexpr const char* kSuggestion = "You have not used Timer yet.";
    installPresenting();
    auto tool = clock_.role("pausingTool");
    ASSERT_EQ(tool.waitForLine(), "paused");
    auto agent = open();
    EXPECT_THAT(heardWith("Timer, Not running"),
                AllOf(HasSubstr("Timer, Not running"), Not(HasSubstr(kSuggestion))));
    tool.kill();
    display_.press({"Escape"});
    ASSERT_TRUE(test::eventually([&] { return !display_.hasWindow(kTitle); }));
    EXPECT_EQ(startAgent(audible()).waitForExit(), 0);
    display_.waitForWindow(kTitle);
    EXPECT_THAT(heardWith(kSuggestion), HasSubstr(kSuggestion));
    // Who wants none gets none, now and later.
    display_.press({"alt+e", "alt+s", "alt+t"});
    EXPECT_THAT(heardInsteadOf(kSuggestion, "Timer, Not running"),
                AllOf(HasSubstr("Timer, Not running"), Not(HasSubstr(kSuggestion))));
}

// Without a window that is opened again.
class AgentSuggestionsTest : public AgentMessagesTest {
protected:
    static constexpr const char* kOfTimer = "You have not used Timer yet.";
    static constexpr const char* kOfClock = "You have not used World_Clock yet.";
    AgentSuggestionsTest() {
        installPresenting();
        clock_.install("startedTool", {reports_.path()});
    }
    void expectNoneInsteadOf(const std::string& suggestion) const {
        EXPECT_THAT(heardInsteadOf(suggestion, "Timer, "),
                    AllOf(HasSubstr("Timer, "), Not(HasSubstr("You have not used"))));
    }
};

TEST_F(AgentSuggestionsTest, StopAsSoonAsAToolHasThemPausedUntilItTakesThatBack) {
    auto agent = open();
    EXPECT_THAT(heardWith(kOfTimer), HasSubstr(kOfTimer));
    photograph("suggestion");
    auto tool = clock_.role("pausingTool");
    ASSERT_EQ(tool.waitForLine(), "paused");
    expectNoneInsteadOf(kOfTimer);
    photograph("suggestion-paused");
    tool.say("resume");
    EXPECT_THAT(heardWith(kOfTimer), HasSubstr(kOfTimer));
    // On the other page there is nothing to be seen of that; on the first one all is as it should be.
    display_.press({"alt+e"});
    CommonAuxiliary::sharedInstance().pauseToolsSuggestions(true, kClock);
    display_.press({"alt+t"});
    expectNoneInsteadOf(kOfTimer);
}

TEST_F(AgentSuggestionsTest, ComeBackWhenTheToolEndsThatHadThemPaused) {
    auto tool = clock_.role("pausingTool");
    ASSERT_EQ(tool.waitForLine(), "paused");
    auto port = std::make_unique<RecordingPort>(portOf(clock_));
    auto agent = open();
    sayStatus(clock_, 2);
    EXPECT_THAT(heardWith("World_Clock, Running, Always shown"),
                AllOf(HasSubstr("World_Clock, Running, Always shown"), Not(HasSubstr(kOfTimer))));
    tool.kill();
    port.reset();
    EXPECT_THAT(heardWith(kOfTimer), HasSubstr(kOfTimer));
}

TEST_F(AgentSuggestionsTest, AreOfNoToolThatWasRemovedOrForbidden) {
    const test::PrivateMounts mounts;
    mounts.writeSettings("{}");
    auto agent = open(&mounts);
    EXPECT_THAT(heardWith(kOfTimer), HasSubstr(kOfTimer));
    std::filesystem::remove(home_.data() / "applications" / (std::string(kTimer) + ".desktop"));
    EXPECT_THAT(heardInsteadOf(kOfTimer, kOfClock),
                AllOf(HasSubstr(kOfClock), Not(HasSubstr(kOfTimer))));
    installPresenting();
    EXPECT_THAT(heardInsteadOf(kOfClock, kOfTimer),
                AllOf(HasSubstr(kOfTimer), Not(HasSubstr(kOfClock))));
    mounts.writeSettings(R"({"WhiteToolsList": ["worldclock"]})");
    EXPECT_THAT(heardInsteadOf(kOfTimer, kOfClock),
                AllOf(HasSubstr(kOfClock), Not(HasSubstr(kOfTimer))));
    photograph("suggestion-of-another");
    // What was suggested is what is started.
    display_.press({"alt+r"});
    EXPECT_EQ(reports_.waitForLine(), "started");
}

TEST_F(AgentMessagesTest, OpenAtLoginIsASwitch) {
    auto agent = open();
    const auto isEntered = [&] {
        std::error_code missing;
        return std::filesystem::directory_iterator(home_.config() / "autostart", missing) !=
               std::filesystem::directory_iterator();
    };
    ASSERT_FALSE(isEntered());
    display_.press({"alt+e", "alt+l"});
    EXPECT_TRUE(test::eventually(isEntered));
    display_.press({"alt+l"});
    EXPECT_TRUE(test::eventually([&] { return !isEntered(); }));
}

TEST_F(AgentMessagesTest, SettingsTellWhatIsNewInTheUsersLanguage) {
    const std::string bundle = std::filesystem::path(test::places::kAgentProgram)
                                   .parent_path()
                                   .parent_path()
                                   .parent_path();
    const auto own = platform::Bundle::bundleWithPath(bundle);
    ASSERT_TRUE(own);
    CommonAuxiliary::saveUpdateDescription(
        Dictionary{{"en", "Fifty new things."}, {"de", "Fünfzig Neuigkeiten."}},
        VersionManager::versionFromBundle(own.get()));
    for (const auto& [language, news] :
         {std::pair("en", "Fifty new things."), std::pair("de", "Fünfzig Neuigkeiten."),
          std::pair("fr", "Fifty new things.")}) {
        auto environment = audible();
        environment["LANGUAGE"] = language;
        auto agent = startAgent(environment, {"--show-ui"});
        display_.waitForWindow(kTitle);
        display_.press({"ctrl+Tab"});
        EXPECT_THAT(heardWith(news), HasSubstr(news)) << language;
        agent.signal(SIGTERM);
        EXPECT_EQ(agent.waitForExit(), 0);
    }
}

// ---- what was sent

TEST_F(AgentMessagesTest, ListWhatWasSentAndWhatBecameOfIt) {
    const test::PrivateNetwork network;  // in which there is no server
    platform::UserDefaults::initWithDomain("com.korvane.utilia")
        ->setObject(Date{Date::now().secondsSinceReferenceDate - 60}, kCEPSyncDateKey);
    std::filesystem::create_directories(reportFolder());
    std::ofstream(reportFolder() + "/utilia_report (7).xml") << "<of the test/>\n";
    test::ChildProcessOptions options;
    options.environment = audible();
    options.network = &network;
    options.diesWithTest = true;
    auto agent = ChildProcess::program(test::places::kAgentProgram, {"--show-ui"}, options);
    display_.waitForWindow(kTitle);
    constexpr const char* kSent = "What was sent last";
    const auto heard = [&] {
        display_.press({"alt+e", "alt+w"});
        display_.waitForWindow(kSent);
        std::string all;
        for (const auto& element : reader_->read(kSent, display_.environment()))
            all += element.name + "\n";
        photograph("sent");
        display_.press({"Escape"});
        display_.waitForWindow(kTitle);
        return all;
    };
    std::string all;
    EXPECT_TRUE(test::eventually([&] {
        return (all = heard())
                   .find("not accepted, will be sent again · utilia_report (7).xml · 15 "
                         "bytes") != std::string::npos;
    })) << all;
}

}  // namespace
}  // namespace utilia::agent
