#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <map>
#include <set>

#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"
#include "Tests/Process/Agent/AgentFixture.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/ScreenReader.h"
#include "Tests/Support/VirtualDisplay.h"

// The agent's window for who hears it, and for who has a keyboard only.

namespace utilia::agent {
namespace {

using test::ChildProcess;
using test::ScreenReader;
using test::TestBundle;
using test::VirtualDisplay;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::StartsWith;
using Element = ScreenReader::Element;

constexpr const char* kTitle = "Korvane Utilia";
constexpr const char* kLanguages[] = {"ar", "de", "en", "es", "fr", "ja", "pl"};

class AgentAccessibilityTest : public AgentApplicationTest {
protected:
    AgentAccessibilityTest() {
        startBus();
        reader_ = std::make_unique<ScreenReader>(*bus_, home_.path());
    }
    ChildProcess open(const std::string& language = "en",
                      const test::PrivateMounts* mounts = nullptr) {
        Environment environment = display_.environment();
        environment.merge(reader_->environment());
        environment["LANGUAGE"] = language;
        auto agent = startAgent(environment, {"--show-ui"}, mounts);
        display_.waitForWindow(kTitle);
        return agent;
    }
    std::vector<Element> read(const std::string& title = kTitle) const {
        return reader_->read(title, display_.environment());
    }

    // The page once it is there: what is read while it comes is the one before, or hardly anything.
    std::vector<Element> readPage(const std::string& role, const std::string& name,
                                  std::ptrdiff_t least = 1) const {
        std::vector<Element> all;
        EXPECT_TRUE(test::eventually([&] {
            all = read();
            return std::count_if(all.begin(), all.end(), [&](const Element& one) {
                       return (role.empty() || one.role == role) && one.is("showing") &&
                              (name.empty() || one.name == name);
                   }) >= least;
        })) << role
            << " " << name;
        EXPECT_GE(std::count_if(all.begin(), all.end(),
                                [](const Element& one) { return one.isForUsers(); }),
                  5);
        return all;
    }

    // The control with the keyboard; for lists and tabs, what they are in.
    std::string focused() const {
        for (const Element& element : read()) {
            const bool isOne = element.role == "list item" || element.role == "page tab";
            if (!isOne && element.is("focusable") && element.is("focused")) return element.name;
        }
        return "";
    }
    // The same once it is as expected, or as it is after a long while: a key is not at work yet when it is pressed.
    std::string focusThatBecomes(const std::function<bool(const std::string&)>& isExpected) const {
        std::string name;
        (void)test::eventually([&] { return isExpected(name = focused()); });
        return name;
    }
    std::string focusThatBecomes(const std::string& expected) const {
        return focusThatBecomes([&](const std::string& name) { return name == expected; });
    }

    std::unique_ptr<ScreenReader> reader_;
    test::TemporaryFolder displayFolder_;
    VirtualDisplay display_{displayFolder_.path()};
};

TEST_F(AgentAccessibilityTest, NamesEverythingThatCanBeUsed) {
    install(timer_);
    install(clock_);
    auto agent = open();
    const auto tools = readPage("push button", "Try It");
    EXPECT_THAT(flawsOf(tools), IsEmpty());
    EXPECT_EQ(tools.front().role, "frame");
    EXPECT_THAT(tools, Contains(AllOf(Field(&Element::role, "list"),
                                      Field(&Element::name, "Installed tools"))));
    EXPECT_THAT(tools,
                Contains(AllOf(Field(&Element::name, "Try It"),
                               Field(&Element::description, "You have not used Timer yet."))));
    display_.press({"alt+e"});
    EXPECT_THAT(flawsOf(readPage("check box", "Report how I use the tools")), IsEmpty());
    display_.press({"alt+p"});
    constexpr const char* kPreview = "What will be sent next";
    display_.waitForWindow(kPreview);
    const auto list = AllOf(Field(&Element::role, "list"), Field(&Element::name, kPreview));
    const auto view =
        AllOf(Field(&Element::role, "text"), Field(&Element::name, "The report, word by word"));
    const auto log = AllOf(Field(&Element::role, "list item"),
                           Field(&Element::name, StartsWith("What no report has taken yet")));
    const auto close = Field(&Element::name, "Close");
    const auto whole = AllOf(Contains(list), Contains(view), Contains(log), Contains(close));
    std::vector<Element> preview;
    (void)test::eventually([&] { return testing::Value(preview = read(kPreview), whole); });
    EXPECT_THAT(preview, whole);
    EXPECT_THAT(flawsOf(preview), IsEmpty());
}

TEST_F(AgentAccessibilityTest, NamesWhatIsInAMessage) {
    install(timer_);
    auto agent = open();
    // It is there until it is started.
    std::filesystem::remove(timer_.program());
    display_.press({"Return"});
    ASSERT_TRUE(test::eventually([&] { return read().front().role == "alert"; }));
    const auto message = read();
    EXPECT_THAT(flawsOf(message), IsEmpty());
    EXPECT_THAT(message, Contains(Field(&Element::name, "Timer cannot be started.")));
    display_.press({"alt+c"});
    EXPECT_TRUE(test::eventually([&] { return read().front().role == "frame"; }));
}

TEST_F(AgentAccessibilityTest, SpeaksNameAndStatusOfEachTool) {
    const TestBundle notes(home_,
                           {.name = "Notes", .bundleIdentifier = "com.korvane.utilia.QuickNotes"});
    const TestBundle ruler(home_,
                           {.name = "Ruler", .bundleIdentifier = "com.korvane.utilia.ScreenRuler"});
    const TestBundle broken(home_,
                            {.name = "Broken", .bundleIdentifier = "com.korvane.utilia.ReadLater"});
    const test::PrivateMounts mounts;
    mounts.writeSettings(
        R"({"WhiteToolsList": ["worldclock", "quicknotes", "screenruler", "readlater"]})");
    for (const TestBundle& tool : {std::cref<TestBundle>(timer_), std::cref<TestBundle>(clock_),
                                   std::cref(notes), std::cref(ruler), std::cref(broken)})
        install(tool);
    const test::RecordingPort clockPort(portOf(clock_));
    const test::RecordingPort notesPort(portOf(notes));
    std::filesystem::remove_all(broken.path());

    auto agent = open("en", &mounts);
    sayStatus(clock_, 1);
    speak(clock_, 108, {"12:30 in Lima"});
    sayStatus(notes, 2);
    const auto rows = [&] {
        std::vector<std::string> names;
        for (const Element& element : read()) {
            if (element.role == "list item") names.push_back(element.name);
        }
        return names;
    };
    const auto expected =
        ElementsAre("Notes, Running, Always shown", "Read Later, Damaged: install it again",
                    "Ruler, Not running", "Timer, Not allowed by your administrator",
                    "World_Clock, 12:30 in Lima, Running, Active");
    (void)test::eventually([&] { return testing::Value(rows(), expected); });
    EXPECT_THAT(rows(), expected);
    sayStatus(clock_, 0);
    const auto inactive = Contains("World_Clock, 12:30 in Lima, Running");
    (void)test::eventually([&] { return testing::Value(rows(), inactive); });
    EXPECT_THAT(rows(), inactive);
}

TEST_F(AgentAccessibilityTest, LetsAScreenReaderStartATool) {
    install(timer_);
    auto agent = open();
    EXPECT_TRUE(reader_->press(kTitle, "Start", display_.environment()));
    EXPECT_EQ(reports_.waitForLine(), "started");
}

TEST_F(AgentAccessibilityTest, HasALetterForEachControlInEveryLanguage) {
    install(timer_);
    const test::RecordingPort timerPort(portOf(timer_));
    for (const char* language : kLanguages) {
        SCOPED_TRACE(language);
        auto agent = open(language);
        EXPECT_THAT(flawsOf(readPage("list item", "")), IsEmpty());
        display_.press({"ctrl+Tab"});
        EXPECT_THAT(flawsOf(readPage("check box", "", 3)), IsEmpty());
        agent.signal(SIGTERM);
        EXPECT_EQ(agent.waitForExit(), 0);
    }
}

TEST_F(AgentAccessibilityTest, LeadsToEveryControlWithTab) {
    install(timer_);
    install(clock_);
    const test::RecordingPort timerPort(portOf(timer_));
    auto agent = open();
    sayStatus(timer_, 1);
    ASSERT_TRUE(test::eventually([&] {
        const auto all = read();
        return std::any_of(all.begin(), all.end(),
                           [](const Element& one) { return one.name == "Timer, Running, Active"; });
    }));
    const std::map<std::string, std::vector<std::string>> pages{
        {"alt+t",
         {"Tools", "Try It", "Not Now", "Installed tools", "Start this tool at login", "Quit",
          "Click"}},
        {"alt+e",
         {"Settings", "Open Korvane Utilia at login", "Suggest tools that I have not used",
          "Report how I use the tools", "Preview…", "What Was Sent…",
          "There is no description of this version in your language or in English."}}};
    for (const auto& [page, order] : pages) {
        display_.press({page});
        const auto isOfPage = [&order = order](const std::string& name) {
            return std::find(order.begin(), order.end(), name) != order.end();
        };
        std::string now = focusThatBecomes(isOfPage);
        for (std::size_t i = 0; i < order.size() && now != order.front(); ++i) {
            display_.press({"Tab"});
            now = focusThatBecomes([&](const std::string& name) { return name != now; });
        }
        std::set<std::string> all;
        for (const Element& element : readPage("", order.back())) {
            // Arrows lead to the others.
            const bool isOne = element.role == "list item" || element.role == "page tab";
            if (!isOne && element.isForUsers()) all.insert(element.name);
        }
        EXPECT_EQ(all, std::set<std::string>(order.begin(), order.end()));
        std::vector<std::string> reached;
        for (const std::string& next : order) {
            reached.push_back(focusThatBecomes(next));
            if (reached.back() != next) break;
            display_.press({"Tab"});
        }
        EXPECT_EQ(reached, order);
        EXPECT_EQ(focusThatBecomes(order.front()), order.front()) << "once around";
    }
}

TEST_F(AgentAccessibilityTest, DoesByKeyboardWhatCanBeDoneWithATool) {
    install(timer_);
    auto agent = open();
    const auto isAtLogin = [] { return UtiliaToolLauncher::isToolInLaunchAtLogin(kTimer); };
    display_.press({"Menu", "Up", "Return"});  // the last entry
    EXPECT_TRUE(test::eventually(isAtLogin));
    display_.press({"alt+l"});
    EXPECT_TRUE(test::eventually([&] { return !isAtLogin(); }));
    display_.press({"shift+Tab", "shift+F10", "Up", "Return"});
    EXPECT_TRUE(test::eventually(isAtLogin));
    display_.press({"shift+F10", "Escape"});
    EXPECT_EQ(read().front().role, "frame") << "only the menu is closed";

    display_.press({"alt+s"});
    EXPECT_EQ(reports_.waitForLine(), "started");
    test::RecordingPort timerPort(portOf(timer_));
    sayStatus(timer_, 1);
    const auto hasBeenToldToEnd = [&] {
        display_.press({"alt+q"});
        const auto& all = timerPort.messages();
        return std::any_of(all.begin(), all.end(),
                           [](const test::RecordedMessage& one) { return one.id == 105; });
    };
    EXPECT_TRUE(test::eventually(hasBeenToldToEnd));
}

}  // namespace
}  // namespace utilia::agent
