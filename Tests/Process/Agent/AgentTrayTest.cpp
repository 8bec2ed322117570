#include <csignal>
#include <random>

#include "Common/Platform/RunLoop.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Process/Agent/AgentFixture.h"
#include "Tests/Process/SampleImage.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/StopWithoutLocks.h"
#include "Tests/Support/VirtualDisplay.h"

// The agent's status icon and menu, as a panel sees them.

namespace utilia::agent {
namespace {

using test::RecordedMessage;
using test::RecordingPort;
using test::TestBundle;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// Reports that it has started, or the word that it is given.
UTILIA_CHILD_ROLE(startedTool) {
    test::outliveLauncher();
    test::ReportPipe::report(self.arguments.at(0),
                             self.arguments.size() > 1 ? self.arguments[1] : "started");
    return 0;
}

// A tool that reads what it is told as long as nobody stops it, and tells its test how often it was clicked.
UTILIA_CHILD_ROLE(clickedTool) {
    RecordingPort port(self.arguments.at(0));
    self.say("registered");
    const auto count = std::stoul(self.arguments.at(1));
    (void)test::eventually([&] {
        return static_cast<unsigned long>(std::count(port.messages().begin(), port.messages().end(),
                                                     RecordedMessage{107, {}})) >= count;
    });
    self.say(std::to_string(port.messages().size()));
    self.waitForLine();
    return 0;
}

class AgentTrayTest : public AgentApplicationTest {
protected:
    AgentTrayTest() { startBus(); }
    std::string withOwn(const std::string& tools) const { return tools + "; " + kOwnEntries; }
};

TEST_F(AgentTrayTest, HasAMenuOfTheToolsAsTheyAre) {
    install(timer_);
    install(clock_);
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    EXPECT_EQ(ask(panel, "menu"), withOwn("Timer; World__Clock"));
    ask(panel, "changes");

    const RecordingPort timer(portOf(timer_));
    const RecordingPort clock(portOf(clock_));
    sayStatus(timer_, 2);
    speak(timer_, 108, {"0:42"});
    sayStatus(clock_, 1);
    const std::string both = withOwn("Timer – 0:42 [checkmark]; World__Clock [checkmark]");
    EXPECT_EQ(menuThatBecomes(panel, both), both);
    EXPECT_EQ(ask(panel, "spoken"),
              "Timer – 0:42, Running, Always shown; World_Clock, Running, Active");
    sayStatus(clock_, 0);
    const std::string one = withOwn("Timer – 0:42 [checkmark]; World__Clock");
    EXPECT_EQ(menuThatBecomes(panel, one), one);
    EXPECT_EQ(ask(panel, "spoken"), "Timer – 0:42, Running, Always shown; World_Clock, Running");
    EXPECT_THAT(ask(panel, "changes"), testing::Not(HasSubstr("layout")))
        << "what has changed in place is told as that";
}

TEST_F(AgentTrayTest, ShowsThePictureThatAToolHasNow) {
    install(timer_);
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    const RecordingPort timer(portOf(timer_));
    const auto picture = [&] { return ask(panel, "picture Timer"); };
    const auto isPicture = [](const std::string& digest) {
        return digest.size() == 64 &&
               digest.find_first_not_of("0123456789abcdef") == std::string::npos;
    };
    const std::string none = picture();
    ASSERT_TRUE(isPicture(none)) << none;

    std::string one = none;
    speak(timer_, 101, {test::sampleTiff(32, 1)});
    EXPECT_TRUE(test::eventually([&] { return (one = picture()) != none && isPicture(one); }));
    speak(timer_, 108, {"0:42"});
    ASSERT_EQ(menuThatBecomes(panel, withOwn("Timer – 0:42")), withOwn("Timer – 0:42"));
    EXPECT_EQ(picture(), one) << "another text";
    speak(timer_, 101, {test::sampleTiff(32, 2)});
    std::string other = one;
    EXPECT_TRUE(test::eventually([&] { return (other = picture()) != one && isPicture(other); }));
    EXPECT_NE(other, none);
}

TEST_F(AgentTrayTest, ShowsTheIconOfAToolThatWasReplacedWhereItIs) {
    const TestBundle notes(home_, {.name = "Notes",
                                   .bundleIdentifier = "com.korvane.utilia.QuickNotes",
                                   .info = {{"CFBundleIconFile", "icon.svg"}}});
    const auto contents = std::filesystem::path(notes.path()) / "Contents";
    std::filesystem::create_directories(contents / "Resources");
    const auto setIcon = [&](const char* color) {
        std::ofstream(contents / "Resources/icon.svg")
            << "<svg xmlns='http://www.w3.org/2000/svg' width='8' height='8'>"
               "<rect width='8' height='8' fill='"
            << color << "'/></svg>";
    };
    setIcon("red");
    install(notes);
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    const std::string old = ask(panel, "picture Notes");
    ASSERT_THAT(old, testing::Not("none"));
    EXPECT_EQ(ask(panel, "open"), "done");
    EXPECT_EQ(ask(panel, "picture Notes"), old);

    setIcon("blue");
    // As a package brings it, with a date of its own.
    std::filesystem::last_write_time(contents / "Info.plist",
                                     std::filesystem::file_time_type::clock::now() -
                                         std::chrono::hours(1));
    EXPECT_EQ(ask(panel, "open"), "done");
    EXPECT_NE(ask(panel, "picture Notes"), old);
}

TEST_F(AgentTrayTest, OwnsTheUploadOfUsageReportsAndRecordsItsStartAndItsEnd) {
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    const auto preferences = platform::UserDefaults::initWithDomain("com.korvane.utilia");
    const auto due = preferences->objectForKey("CEPSyncDate");
    ASSERT_TRUE(due && due->date()) << "the first upload is due";
    EXPECT_GT(*due->date(), Date::now());
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.waitForExit(), 0);
    std::ifstream file(home_.state() / "korvane-utilia/Library/Logs/krv.utilia.ceplog.xml");
    const std::string recorded(std::istreambuf_iterator<char>(file), {});
    EXPECT_THAT(recorded,
                testing::ContainsRegex("tool=\"com.korvane.utilia\" [^\n]* action=\"Launch\"/>\n"
                                       "<event [^\n]* action=\"Quit\"/>\n"));
}

TEST_F(AgentTrayTest, SaysWhenThereAreNoTools) {
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    EXPECT_EQ(ask(panel, "menu"), withOwn("No tools are installed [grey]"));
    install(timer_);
    EXPECT_EQ(menuThatBecomes(panel, withOwn("Timer")), withOwn("Timer"))
        << "installed while the agent runs";
}

TEST_F(AgentTrayTest, ShowsWhatCannotBeUsedGreyAndWithTheReason) {
    const test::PrivateMounts mounts;
    mounts.writeSettings(R"({"WhiteToolsList": ["timer"]})");
    install(timer_);
    install(clock_);
    std::filesystem::remove_all(timer_.path());
    auto panel = startPanel();
    auto agent = startAgent(offscreen(), {}, &mounts);
    expectItem(panel, agent);
    EXPECT_EQ(ask(panel, "menu"),
              withOwn("Timer (damaged) [grey]; World__Clock (not allowed by your administrator) "
                      "[grey]"));
    // Whoever starts it all the same says that it is not there.
    std::filesystem::remove(clock_.program());
    EXPECT_EQ(ask(panel, "click World"), "done");
    const std::string refused =
        "com.korvane.utilia.WorldClock: the administrator does not allow it";
    EXPECT_TRUE(test::eventually([&] { return log().find(refused) != std::string::npos; }));
    EXPECT_THAT(log(), testing::Not(HasSubstr(clock_.program())));
}

TEST_F(AgentTrayTest, StartsAToolOnAClickAndTellsOneThatRuns) {
    install(timer_);
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    EXPECT_EQ(ask(panel, "click Timer"), "done");
    EXPECT_EQ(reports_.waitForLine(), "started");

    RecordingPort timer(portOf(timer_));
    sayStatus(timer_, 1);
    ASSERT_EQ(menuThatBecomes(panel, withOwn("Timer [checkmark]")), withOwn("Timer [checkmark]"));
    ASSERT_TRUE(timer.waitForMessages(2));  // the wishes
    timer.clear();
    EXPECT_EQ(ask(panel, "click Timer"), "done");
    EXPECT_EQ(timer.take(1), (std::vector<RecordedMessage>{{107, {}}}));
}

TEST_F(AgentTrayTest, AnswersWhileAToolThatIsStoppedIsClicked) {
    constexpr int kClicks = 600;  // a stopped tool has room for some three hundred
    install(timer_);
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    auto tool = test::ChildProcess::role("clickedTool", {portOf(timer_), std::to_string(kClicks)});
    ASSERT_EQ(tool.waitForLine(), "registered");
    sayStatus(timer_, 1);
    const std::string active = withOwn("Timer [checkmark]");
    ASSERT_EQ(menuThatBecomes(panel, active), active);
    test::stopWithoutLocks(tool.pid(), home_.path());
    const auto first = std::chrono::steady_clock::now();
    EXPECT_EQ(ask(panel, "clicks " + std::to_string(kClicks) + " Timer"), "done");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ask(panel, "menu"), active);
    const auto taken = std::chrono::steady_clock::now() - start;
    // One click that waited for the tool would take ten.
    EXPECT_LT(taken, std::chrono::seconds(9));
    tool.signal(SIGCONT);
    const auto stopped = std::chrono::steady_clock::now() - first;
    // What is kept for longer is given up.
    if (stopped < sendTimeout(AgentMessage::MenuIconClicked)) {
        EXPECT_EQ(tool.waitForLine(), std::to_string(kClicks + 2)) << "all of them, and the wishes";
    }
}

TEST_F(AgentTrayTest, ComesWhenThePanelIsLateAndComesBackWhenItRestarts) {
    install(timer_);
    auto agent = startAgent(offscreen());
    sayStatus(timer_, 0);  // waits until the agent is there
    auto late = startPanel();
    expectItem(late, agent);
    late.kill();
    auto restarted = startPanel();
    expectItem(restarted, agent);
    EXPECT_EQ(ask(restarted, "menu"), withOwn("Timer"));
}

TEST_F(AgentTrayTest, GoesOverToAPanelThatWaitsForTheOtherOnesEnd) {
    auto first = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(first, agent);
    auto second = queuePanel();
    ASSERT_TRUE(test::eventually([&] {
        return test::runProgram({"gdbus", "call", "--session", "--dest", "org.freedesktop.DBus",
                                 "--object-path", "/org/freedesktop/DBus", "--method",
                                 "org.freedesktop.DBus.ListQueuedOwners",
                                 "org.kde.StatusNotifierWatcher"},
                                {{"DBUS_SESSION_BUS_ADDRESS", bus_->address()}})
                   .text.find(", ") != std::string::npos;
    }));
    first.kill();
    EXPECT_EQ(second.waitForLine(), "ready");
    expectItem(second, agent);
}

TEST_F(AgentTrayTest, ComesBackAfterTheAgentWasKilled) {
    install(timer_);
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    const RecordingPort timer(portOf(timer_));
    sayStatus(timer_, 1);
    ASSERT_EQ(menuThatBecomes(panel, withOwn("Timer [checkmark]")), withOwn("Timer [checkmark]"));
    agent.kill();
    auto second = startAgent(offscreen());
    expectItem(panel, second);
    EXPECT_EQ(ask(panel, "menu"), withOwn("Timer")) << "until the tool says more";
    sayStatus(timer_, 1);
    EXPECT_EQ(menuThatBecomes(panel, withOwn("Timer [checkmark]")), withOwn("Timer [checkmark]"));
}

TEST_F(AgentTrayTest, LosesNothingHoweverOftenItIsKilled) {
    install(timer_);
    install(clock_);
    // A repeat that is far off, and one record that nobody acts on.
    const Date far{Date::now().secondsSinceReferenceDate + 86'400};
    updateSchedulerPlist(kClock, "World_Clock", [&](Dictionary& record) {
        record.set("launchAtDate", true);
        record.set("date", far);
        record.set("interval", 3600.0);
    });
    // One that is due: killed in between, the agent starts its tool once more, and forgets it never.
    updateSchedulerPlist(kTimer, "Timer", [](Dictionary& record) {
        record.set("launchAtDate", true);
        record.set("date", Date{Date::now().secondsSinceReferenceDate - 60});
        record.set("interval", 86'400.0);
    });
    const RecordingPort clock(portOf(clock_));
    std::minstd_rand random(20'261'121);
    for (int i = 0; i < 12; ++i) {
        auto agent = startAgent(offscreen());
        platform::RunLoop::currentRunLoop().runFor(std::chrono::milliseconds(random() % 500));
        // Where it is there by now.
        (void)test::RecordingPort::send(kAgentPortName, 108, {clock_.path(), std::to_string(i)});
        agent.kill();
    }
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    sayStatus(clock_, 1);
    speak(clock_, 108, {"12:00"});
    const std::string all = withOwn("Timer; World__Clock – 12:00 [checkmark]");
    EXPECT_EQ(menuThatBecomes(panel, all), all);
    EXPECT_EQ(reports_.waitForLine(), "started");
    const auto recordOf = [](const char* tool, const std::string& name) {
        Dictionary found;
        readSchedulerPlist(tool, name, [&](const Dictionary& record) { found = record; });
        return found;
    };
    EXPECT_TRUE(test::eventually([&] {
        const Dictionary record = recordOf(kTimer, "Timer");
        const Value* const date = record.find("date");
        return date && date->date() && *date->date() > Date::now();
    })) << "the next time";
    EXPECT_EQ(recordOf(kClock, "World_Clock"), (Dictionary{{"bundleid", kClock},
                                                           {"name", "World_Clock"},
                                                           {"launchAtDate", true},
                                                           {"date", far},
                                                           {"interval", 3600.0}}));
    // The dead ones' icons went with them.
    const auto names =
        test::runProgram({"gdbus", "call", "--session", "--dest", "org.freedesktop.DBus",
                          "--object-path", "/", "--method", "org.freedesktop.DBus.ListNames"},
                         {{"DBUS_SESSION_BUS_ADDRESS", bus_->address()}})
            .text;
    const std::string item = "org.kde.StatusNotifierItem-";
    EXPECT_NE(names.find(item + std::to_string(agent.pid())), std::string::npos);
    EXPECT_EQ(names.find(item), names.rfind(item)) << names;
}

TEST_F(AgentTrayTest, ShowsWhatIsMissingAtLoginAndLeavesOutWhatTheAdministratorHides) {
    const test::PrivateMounts mounts;
    mounts.writeSettings(R"({"WhiteToolsList": ["timer"], "HideRestrictedTools": true})");
    install(clock_);
    platform::UserDefaults::initWithDomain("com.korvane.utilia")
        ->setObject(Array{Value(kTimer)}, "LaunchAtLoginTools");
    auto panel = startPanel();
    auto agent = startAgent(offscreen(), {}, &mounts);
    expectItem(panel, agent);
    EXPECT_EQ(ask(panel, "menu"), withOwn("Timer (not installed) [grey]"));
    EXPECT_EQ(ask(panel, "click Timer"), "done");
    const std::string refused = "com.korvane.utilia.Timer: is not installed";
    EXPECT_TRUE(test::eventually([&] { return log().find(refused) != std::string::npos; }));
    // Whoever has kept the click starts another program than this one does.
    timer_.install("startedTool", {reports_.path(), "later"});
    EXPECT_EQ(menuThatBecomes(panel, withOwn("Timer")), withOwn("Timer"));
    timer_.install("startedTool", {reports_.path(), "by the next click"});
    EXPECT_EQ(ask(panel, "click Timer"), "done");
    EXPECT_EQ(reports_.waitForLine(), "by the next click");
}

TEST_F(AgentTrayTest, QuitsFromItsMenuInAnOrderlyWay) {
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    EXPECT_EQ(ask(panel, "click Quit"), "done");
    EXPECT_EQ(agent.waitForExit(), 0);
}

TEST_F(AgentTrayTest, HasAnIconByNameAndInPixels) {
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    EXPECT_THAT(ask(panel, "icon"),
                testing::MatchesRegex("korvane-utilia-symbolic 16,22,24,32,48 ff[0-9a-f]{6}"));
}

TEST_F(AgentTrayTest, SpeaksTheUsersLanguageAndRunsFromRightToLeft) {
    install(timer_);
    auto panel = startPanel();
    auto german = startAgent(offscreen("de"));
    expectItem(panel, german);
    EXPECT_EQ(ask(panel, "menu"),
              "Timer; -; Fenster zeigen; Einstellungen …; -; Korvane Utilia beenden");
    EXPECT_EQ(ask(panel, "direction"), "ltr");
    german.signal(SIGTERM);
    EXPECT_EQ(german.waitForExit(), 0);
    auto arabic = startAgent(offscreen("ar"));
    expectItem(panel, arabic);
    EXPECT_EQ(ask(panel, "direction"), "rtl");
    EXPECT_THAT(ask(panel, "menu"), HasSubstr("إظهار النافذة"));
    const RecordingPort timer(portOf(timer_));
    speak(timer_, 108, {"أحدب 91 %"});
    const auto menu = [&] { return ask(panel, "menu"); };
    EXPECT_TRUE(test::eventually([&] {
        return menu().starts_with("Timer – \u2068أحدب 91 %\u2069;");
    })) << "the sign stays behind the number: "
        << menu();
}

// ---- schedules

TEST_F(AgentTrayTest, StartsAToolThatIsDueAndTellsItWhenItReports) {
    install(timer_);
    updateSchedulerPlist(kTimer, "Timer", [](Dictionary& record) {
        record.set("launchAtDate", true);
        record.set("date", Date{Date::now().secondsSinceReferenceDate - 60});
        record.set("interval", 3600.0);
    });
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    EXPECT_EQ(reports_.waitForLine(), "started");
    RecordingPort timer(portOf(timer_));
    sayStatus(timer_, 1);
    EXPECT_TRUE(test::eventually([&] {
        const auto& all = timer.messages();
        return std::find(all.begin(), all.end(), RecordedMessage{103, {}}) != all.end();
    }));
    double interval = 0;
    EXPECT_TRUE(test::eventually([&] {
        std::optional<Date> date;
        readSchedulerPlist(kTimer, "Timer", [&](const Dictionary& record) {
            interval = record.find("interval")->doubleValue();
            date = *record.find("date")->date();
        });
        return *date > Date::now();
    }));
    EXPECT_EQ(interval, 3600);
}

// ---- what is published

TEST_F(AgentTrayTest, PublishesTheListAndEveryChange) {
    install(timer_);
    auto panel = startPanel();
    auto agent = startAgent(offscreen());
    expectItem(panel, agent);
    EXPECT_EQ(published(),
              "([{'condition': <'ready'>, 'identifier': <'com.korvane.utilia.Timer'>, "
              "'name': <'Timer'>, 'path': <'" +
                  timer_.path() +
                  "'>, 'reason': <''>, 'running': <false>, 'status': <uint64 0>, 'text': "
                  "<''>}],)");
    auto monitor = bus_->monitor("interface='com.korvane.utilia.Tools1'");
    const RecordingPort timer(portOf(timer_));
    speak(timer_, 108, {"0:42"});
    EXPECT_THAT(test::nextLineWith(monitor, "member="), HasSubstr("member=ToolChanged"));
    EXPECT_THAT(test::nextLineWith(monitor, "0:42"), HasSubstr("string \"0:42\""));
    EXPECT_THAT(published(),
                HasSubstr("'running': <true>, 'status': <uint64 0>, 'text': <'0:42'>"));
    const std::string letter = ask(panel, "picture Timer");
    speak(timer_, 101, {test::sampleTiff(32, 1)});
    EXPECT_TRUE(test::eventually([&] { return ask(panel, "picture Timer") != letter; }));
    speak(timer_, 108, {"0:43"});
    EXPECT_THAT(test::nextLineWith(monitor, "member=ToolChanged"), testing::Not(IsEmpty()));
    EXPECT_THAT(test::nextLineWith(monitor, "string \"0:4"), HasSubstr("0:43"))
        << "a picture is nothing to tell of";
    std::filesystem::remove(home_.data() / "applications" / (std::string(kTimer) + ".desktop"));
    EXPECT_THAT(test::nextLineWith(monitor, "member=ToolRemoved"), testing::Not(IsEmpty()));
    EXPECT_EQ(published(), "(@aa{sv} [],)");
}

}  // namespace
}  // namespace utilia::agent
