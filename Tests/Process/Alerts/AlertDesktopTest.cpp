#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/Platform/Alert.h"
#include "Tests/Process/Alerts/AskingRole.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/VirtualDisplay.h"

// The window and the rest of the desktop: its colours, the direction of its language, and screen readers.

namespace utilia {
namespace {

namespace fs = std::filesystem;
using test::AskingTool;
using test::ChildProcess;
using test::ChildProcessOptions;
using test::TemporaryHome;
using test::TestBundle;
using test::VirtualDisplay;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

constexpr const char* kPython = "/usr/bin/python3";  // the one that has the bindings
constexpr const char* kTool = "Sample Tool";
constexpr const char* kDark = "#2A2B2E";
constexpr const char* kLight = "#EFEFEF";

enum class Services { None, TheSystems };

// A session bus of its own, on which services of the system may or may not be started.
class SessionBus final {
public:
    SessionBus(const fs::path& folder, Services services) {
        const std::string place = "unix:path=" + (folder / "test-bus").string();
        std::vector<std::string> arguments{"--nofork", "--address=" + place,
                                           "--print-address=" +
                                               std::to_string(test::kChildChannel)};
        ChildProcessOptions options;
        if (services == Services::None) {
            const fs::path settings = folder / "test-bus.conf";
            std::ofstream(settings)
                << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration "
                   "1.0//EN\" "
                   "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">"
                   "<busconfig><type>session</type><listen>"
                << place
                << "</listen><policy context=\"default\"><allow send_destination=\"*\"/>"
                   "<allow receive_sender=\"*\"/><allow own=\"*\"/></policy></busconfig>";
            arguments.push_back("--config-file=" + settings.string());
        } else {
            arguments.push_back("--session");
            options.environment["XDG_DATA_DIRS"] = "\x01";  // where they are described
        }
        options.ownSession = true;
        options.diesWithTest = true;
        options.standardError = folder / "test-bus.log";
        bus_ = ChildProcess::program("/usr/bin/dbus-daemon", arguments, options);
        const auto address = bus_.waitForLine();
        if (!address) throw std::runtime_error("the session bus does not start");
        environment_ = {{"DBUS_SESSION_BUS_ADDRESS", *address}};
    }
    const std::map<std::string, std::string>& environment() const { return environment_; }

private:
    ChildProcess bus_;
    std::map<std::string, std::string> environment_;
};

class AlertOnDesktop : public testing::Test {
protected:
    void startBus(Services services) {
        bus_ = std::make_unique<SessionBus>(home_.runtime(), services);
    }
    ChildProcess startPortal(const std::string& form, int scheme) {
        startBus(Services::None);
        ChildProcessOptions options;
        options.environment = bus_->environment();
        options.diesWithTest = true;
        auto portal = ChildProcess::program(
            kPython, {UTILIA_SETTINGS_PORTAL, form, std::to_string(scheme)}, options);
        if (portal.waitForLine() != "ready") throw std::runtime_error("the portal does not start");
        return portal;
    }
    std::map<std::string, std::string> environment() const {
        std::map<std::string, std::string> all = display_.environment();
        if (bus_) all.insert(bus_->environment().begin(), bus_->environment().end());
        return all;
    }
    AskingTool ask(const std::string& language = "en") {
        auto all = environment();
        all["LANGUAGE"] = language;
        all["QT_LINUX_ACCESSIBILITY_ALWAYS_ON"] = "1";
        return AskingTool(bundle_, "askAgentQuestion", {}, all);
    }
    std::string background(const std::string& window) const {
        return display_.colorInWindow(window, 4, 4);
    }
    bool becomes(const std::string& window, const std::string& color) const {
        return test::eventually([&] { return background(window) == color; });
    }

    TemporaryHome home_;
    TestBundle bundle_{home_};
    VirtualDisplay display_{home_.path()};
    std::unique_ptr<SessionBus> bus_;
};

TEST_F(AlertOnDesktop, IsLightWithoutABus) {
    AskingTool tool = ask();
    const std::string window = display_.waitForWindow(kTool);
    EXPECT_TRUE(becomes(window, kLight)) << background(window);
}

TEST_F(AlertOnDesktop, IsLightWithoutAPortal) {
    startBus(Services::None);
    AskingTool tool = ask();
    const std::string window = display_.waitForWindow(kTool);
    EXPECT_TRUE(becomes(window, kLight)) << background(window);
}

TEST_F(AlertOnDesktop, IsDarkForWhoPrefersDark) {
    for (const char* form : {"new", "old"}) {
        ChildProcess portal = startPortal(form, 1);
        AskingTool tool = ask();
        const std::string window = display_.waitForWindow(kTool);
        EXPECT_TRUE(becomes(window, kDark)) << form << ": " << background(window);
        EXPECT_EQ(portal.waitForLine(), "answered");
    }
}

TEST_F(AlertOnDesktop, IsLightForWhoPrefersLightOrNothingOrSomethingNew) {
    for (const int scheme : {0, 2, 3}) {
        ChildProcess portal = startPortal("new", scheme);
        AskingTool tool = ask();
        const std::string window = display_.waitForWindow(kTool);
        EXPECT_EQ(portal.waitForLine(), "answered");
        EXPECT_TRUE(becomes(window, kLight)) << scheme << ": " << background(window);
    }
}

TEST_F(AlertOnDesktop, FollowsTheColoursWhileItIsOpen) {
    ChildProcess portal = startPortal("new", 0);
    AskingTool tool = ask();
    const std::string window = display_.waitForWindow(kTool);
    ASSERT_TRUE(becomes(window, kLight));
    portal.say("scheme 1");
    EXPECT_TRUE(becomes(window, kDark)) << background(window);
    portal.say("scheme 2");
    EXPECT_TRUE(becomes(window, kLight)) << background(window);
    display_.press({"Return"});
    EXPECT_EQ(tool.answer(), 1000);
}

TEST_F(AlertOnDesktop, DoesNotWaitForAPortalThatIsSlow) {
    ChildProcess portal = startPortal("slow", 1);
    AskingTool tool = ask();
    const std::string window = display_.waitForWindow(kTool);
    EXPECT_TRUE(becomes(window, kLight)) << background(window);
    portal.say("answer");
    EXPECT_TRUE(becomes(window, kDark)) << "the late answer counts";
    display_.press({"Escape"});
    EXPECT_EQ(tool.answer(), 1001);
}

TEST_F(AlertOnDesktop, TakesItsAnswerWhileThePortalIsSilent) {
    ChildProcess portal = startPortal("slow", 1);
    AskingTool tool = ask();
    display_.waitForWindow(kTool);
    display_.press({"Return"});
    EXPECT_EQ(tool.answer(), 1000);
    EXPECT_THAT(tool.log(), IsEmpty());
}

TEST_F(AlertOnDesktop, StartsNoBusOfItsOwn) {
    AskingTool tool = ask();
    const std::string window = display_.waitForWindow(kTool);
    ASSERT_TRUE(becomes(window, kLight));
    EXPECT_THAT(test::runProgram({"xprop", "-root"}, display_.environment()).text,
                Not(HasSubstr("DBUS")));
    EXPECT_FALSE(fs::exists(home_.path() / ".dbus"));
}

TEST_F(AlertOnDesktop, ReadsFromRightToLeftWhereTheLanguageDoes) {
    AskingTool tool = ask("ar");
    const std::string window = display_.waitForWindow(kTool);
    const auto size = display_.sizeOfWindow(window);
    const auto isBlue = [&](int x) {
        const std::string color = display_.colorInWindow(window, x, 44);
        return color.size() == 7 && std::stoi(color.substr(5), nullptr, 16) >
                                        std::stoi(color.substr(1, 2), nullptr, 16) + 60;
    };
    EXPECT_TRUE(test::eventually([&] { return isBlue(size.width - 30); }))
        << "the sign is on the right";
    EXPECT_FALSE(isBlue(30));
    display_.click(window, 40, size.height - 32);
    EXPECT_EQ(tool.answer(), 1000) << "the first button is at the left";
}

TEST_F(AlertOnDesktop, ReadsFromLeftToRightElsewhere) {
    AskingTool tool = ask("de");
    const std::string window = display_.waitForWindow(kTool);
    const auto size = display_.sizeOfWindow(window);
    display_.click(window, size.width - 40, size.height - 32);
    EXPECT_EQ(tool.answer(), 1000);
}

TEST_F(AlertOnDesktop, TellsScreenReadersAllThereIsToKnow) {
    startBus(Services::TheSystems);
    AskingTool tool = ask("de");
    display_.waitForWindow(kTool);
    const auto heard = test::runProgram({kPython, UTILIA_SCREEN_READER}, environment());
    ASSERT_EQ(heard.status, 0);
    const std::string message =
        "Korvane Utilia wird benötigt, damit Sample Tool richtig funktioniert. Möchten Sie "
        "Korvane Utilia starten?";
    EXPECT_THAT(heard.text, HasSubstr("0\talert\tSample Tool\t" + message + "\t"));
    EXPECT_THAT(heard.text, HasSubstr("1\tlabel\tSample Tool\t"));
    EXPECT_THAT(heard.text, HasSubstr("1\tlabel\t" + message + "\t"));
    EXPECT_THAT(
        heard.text,
        HasSubstr("push button\tKorvane Utilia starten\t\tdefault,focusable,focused,showing"));
    EXPECT_THAT(heard.text, HasSubstr("push button\tBeenden\t\tfocusable,showing"));

    // Whatever can get the focus has a name.
    std::istringstream lines(heard.text);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("focusable") == std::string::npos) continue;
        EXPECT_THAT(line, Not(MatchesRegex("[0-9]+\t[a-z ]+\t\t.*"))) << line;
    }
}

TEST_F(AlertOnDesktop, LetsAScreenReaderPressItsButtons) {
    startBus(Services::TheSystems);
    AskingTool tool = ask("de");
    display_.waitForWindow(kTool);
    EXPECT_EQ(
        test::runProgram({kPython, UTILIA_SCREEN_READER, "press", "Beenden"}, environment()).status,
        0);
    EXPECT_EQ(tool.answer(), 1001);
    EXPECT_THAT(tool.log(), IsEmpty());
}

}  // namespace
}  // namespace utilia
