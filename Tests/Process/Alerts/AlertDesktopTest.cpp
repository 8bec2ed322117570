#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/Platform/Alert.h"
#include "Tests/Process/Alerts/AskingRole.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/PrivateBus.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/ScreenReader.h"
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
using Element = test::ScreenReader::Element;
using testing::AllOf;
using testing::Contains;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kPython = "/usr/bin/python3";  // the one that has the bindings
constexpr const char* kTool = "Sample Tool";
constexpr const char* kDark = "#2A2B2E";
constexpr const char* kLight = "#EFEFEF";

class AlertOnDesktop : public testing::Test {
protected:
    void startBus() {
        bus_.reset();  // before another one has its place
        bus_ = std::make_unique<test::PrivateBus>(home_.runtime() / "test-bus");
    }
    ChildProcess startPortal(const std::string& form, int scheme,
                             std::optional<int> contrast = {}) {
        startBus();
        ChildProcessOptions options;
        options.environment = {{"DBUS_SESSION_BUS_ADDRESS", bus_->address()}};
        options.diesWithTest = true;
        std::vector<std::string> arguments{test::places::kSettingsPortal, form,
                                           std::to_string(scheme)};
        if (contrast) arguments.push_back(std::to_string(*contrast));
        auto portal = ChildProcess::program(kPython, arguments, options);
        if (portal.waitForLine() != "ready") throw std::runtime_error("the portal does not start");
        return portal;
    }
    std::map<std::string, std::string> environment() const {
        std::map<std::string, std::string> all = display_.environment();
        if (bus_) all["DBUS_SESSION_BUS_ADDRESS"] = bus_->address();
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
    std::unique_ptr<test::PrivateBus> bus_;
};

TEST_F(AlertOnDesktop, IsLightWithoutABus) {
    AskingTool tool = ask();
    const std::string window = display_.waitForWindow(kTool);
    EXPECT_TRUE(becomes(window, kLight)) << background(window);
}

TEST_F(AlertOnDesktop, IsLightWithoutAPortal) {
    startBus();
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
        // It is light before there is an answer, too; what comes later builds on what was answered.
        portal.say("contrast 1");
        EXPECT_TRUE(becomes(window, "#FFFFFF")) << scheme << ": " << background(window);
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

TEST_F(AlertOnDesktop, IsBlackOrWhiteForWhoWantsHighContrast) {
    for (const auto& [scheme, color] : {std::pair(0, "#FFFFFF"), {1, "#000000"}, {2, "#FFFFFF"}}) {
        ChildProcess portal = startPortal("new", scheme, 1);
        AskingTool tool = ask();
        const std::string window = display_.waitForWindow(kTool);
        EXPECT_TRUE(becomes(window, color)) << scheme << ": " << background(window);
    }
}

TEST_F(AlertOnDesktop, FollowsTheContrastWhileItIsOpen) {
    ChildProcess portal = startPortal("new", 1, 0);
    AskingTool tool = ask();
    const std::string window = display_.waitForWindow(kTool);
    ASSERT_TRUE(becomes(window, kDark));
    portal.say("contrast 1");
    EXPECT_TRUE(becomes(window, "#000000")) << background(window);
    portal.say("scheme 0");
    EXPECT_TRUE(becomes(window, "#FFFFFF")) << background(window);
    portal.say("contrast 0");
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

TEST_F(AlertOnDesktop, TakesAChangeThatIsNewerThanAnAnswerOnItsWay) {
    ChildProcess portal = startPortal("slow", 0, 1);
    AskingTool tool = ask();
    const std::string window = display_.waitForWindow(kTool);
    ASSERT_EQ(portal.waitForLine(), "asked");
    portal.say("answer");
    ASSERT_EQ(portal.waitForLine(), "answered");
    ASSERT_EQ(portal.waitForLine(), "asked") << "the contrast, the scheme has been answered";
    portal.say("scheme 1");
    ASSERT_TRUE(becomes(window, kDark)) << background(window);
    portal.say("answer");
    EXPECT_TRUE(becomes(window, "#000000")) << background(window);
}

// The bus takes connections, as the kernel does for it, and answers nothing.
TEST_F(AlertOnDesktop, IsShownAndAnsweredWhileTheBusIsSilent) {
    startBus();
    bus_->stop();
    AskingTool tool = ask();
    display_.waitForWindow(kTool);
    display_.press({"Return"});
    EXPECT_EQ(tool.answer(), 1000);
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

class SpokenAlert : public AlertOnDesktop {
protected:
    SpokenAlert() {
        startBus();
        reader_ = std::make_unique<test::ScreenReader>(*bus_, home_.path());
    }
    std::unique_ptr<test::ScreenReader> reader_;
};

TEST_F(SpokenAlert, TellsScreenReadersAllThereIsToKnow) {
    AskingTool tool = ask("de");
    display_.waitForWindow(kTool);
    const auto elements = reader_->read(kTool, environment());
    const std::string message =
        "Korvane Utilia wird benötigt, damit Sample Tool richtig funktioniert. Möchten Sie "
        "Korvane Utilia starten?";
    const auto reads = [](const char* role, const std::string& name) {
        return AllOf(Field(&Element::role, role), Field(&Element::name, name));
    };
    EXPECT_THAT(elements.front(),
                AllOf(reads("alert", kTool), Field(&Element::description, message)));
    EXPECT_THAT(elements, Contains(reads("label", kTool)));
    EXPECT_THAT(elements, Contains(reads("label", message)));
    EXPECT_THAT(elements,
                Contains(AllOf(reads("push button", "Korvane Utilia starten"),
                               Field(&Element::states, "default,focusable,focused,showing"))));
    EXPECT_THAT(elements, Contains(AllOf(reads("push button", "Beenden"),
                                         Field(&Element::states, "focusable,showing"))));
    for (const Element& element : elements)
        EXPECT_TRUE(!element.isForUsers() || !element.name.empty()) << element;
}

TEST_F(SpokenAlert, LetsAScreenReaderPressItsButtons) {
    AskingTool tool = ask("de");
    display_.waitForWindow(kTool);
    EXPECT_TRUE(reader_->press(kTool, "Beenden", environment()));
    EXPECT_EQ(tool.answer(), 1001);
    EXPECT_THAT(tool.log(), IsEmpty());
}

}  // namespace
}  // namespace utilia
