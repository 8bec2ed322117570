#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataReader.h"
#include "Tests/Process/Tools/RunningTool.h"
#include "Tests/Support/Places.h"

// The tool Keep Awake in its bundle, and services of a desktop that record what they are asked for.

namespace utilia::test {
namespace {

using testing::HasSubstr;

constexpr const char* kBundle = test::places::kKeepAwakeBundle;
constexpr const char* kScreenSaverGrants = "screensaver inhibit | Keep Awake | Keep Awake is on";
constexpr const char* kLoginGrants =
    "login inhibit | idle:sleep | Keep Awake | Keep Awake is on | block";
constexpr const char* kScreenMayGoDark = "On, but the screen may go dark";
constexpr const char* kMaySleep = "On, but the computer may go to sleep";
constexpr const char* kNotPossible =
    "Not possible: nothing here lets programs keep the computer awake";

class KeepAwake : public testing::Test {
protected:
    ChildProcess start(const std::map<std::string, std::string>& environment = {}) {
        auto tool = session_.start(kBundle, {}, environment);
        session_.askForMenu(kBundle);
        return tool;
    }
    static void expectBoth(ChildProcess& services, const std::string& one,
                           const std::string& other) {
        std::vector<std::string> lines{services.waitForLine().value_or(""),
                                       services.waitForLine().value_or("")};
        EXPECT_THAT(lines, testing::UnorderedElementsAre(one, other));
    }
    ToolSession session_;
};

TEST_F(KeepAwake, HoldsScreenAndSleepWhileItRuns) {
    auto services = session_.startServices({"screensaver", "login"});
    auto tool = start();
    expectBoth(services, kScreenSaverGrants, kLoginGrants);
    EXPECT_TRUE(session_.comesToSay("On"));
    EXPECT_TRUE(session_.isMenuIconTemplate());
    EXPECT_THAT(session_.log(), testing::Not(HasSubstr("Keep Awake:")));
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.waitForExit(), 0);
    expectBoth(services, "screensaver give back 101", "login lost");
}

TEST_F(KeepAwake, SaysWhatItHoldsOnASilentBusAndHoldsTheScreenWhenItSpeaks) {
    auto services = session_.startServices({"screensaver", "login"});
    session_.sessionBus().stop();
    auto tool = start();
    EXPECT_EQ(services.waitForLine(), kLoginGrants);
    EXPECT_TRUE(session_.comesToSay(kScreenMayGoDark));
    session_.sessionBus().resume();
    EXPECT_EQ(services.waitForLine(), kScreenSaverGrants);
    EXPECT_TRUE(session_.comesToSay("On"));
}

TEST_F(KeepAwake, LetsGoWhenItIsKilled) {
    auto services = session_.startServices({"screensaver", "login"});
    auto tool = start();
    expectBoth(services, kScreenSaverGrants, kLoginGrants);
    EXPECT_TRUE(session_.comesToSay("On"));
    tool.kill();
    expectBoth(services, "screensaver lost", "login lost");
}

TEST_F(KeepAwake, IsTurnedOffAndOnByClicks) {
    auto services = session_.startServices({"screensaver", "login"});
    auto tool = start();
    expectBoth(services, kScreenSaverGrants, kLoginGrants);
    EXPECT_TRUE(session_.comesToSay("On"));
    const std::string fullCup = session_.menuIcon();
    ToolSession::click(kBundle);
    EXPECT_EQ(session_.nextText(), "Off");
    EXPECT_NE(session_.menuIcon(), fullCup);
    expectBoth(services, "screensaver give back 101", "login lost");
    ToolSession::click(kBundle);
    expectBoth(services, kScreenSaverGrants, kLoginGrants);
    EXPECT_EQ(session_.nextText(), "On");
    EXPECT_EQ(session_.menuIcon(), fullCup);
}

TEST_F(KeepAwake, IsTurnedOnByASecondStart) {
    auto services = session_.startServices({"screensaver", "login"});
    auto tool = start();
    expectBoth(services, kScreenSaverGrants, kLoginGrants);
    EXPECT_TRUE(session_.comesToSay("On"));
    ToolSession::click(kBundle);
    expectBoth(services, "screensaver give back 101", "login lost");
    auto second = session_.start(kBundle);
    EXPECT_EQ(second.waitForExit(), 0);
    expectBoth(services, kScreenSaverGrants, kLoginGrants);
    EXPECT_TRUE(session_.comesToSay("On"));
}

TEST_F(KeepAwake, IsShownAsOffOnceItHasEnded) {
    auto services = session_.startServices({"screensaver", "login"});
    auto tool = start();
    EXPECT_TRUE(session_.comesToSay("On"));
    ToolSession::turnOff(kBundle);
    EXPECT_EQ(tool.waitForExit(), 0);
    const auto reader = ToolPersistentDataReader("Keep Awake.app", "com.korvane.utilia.KeepAwake");
    EXPECT_TRUE(reader.isPermanent());
    EXPECT_EQ(reader.menuText(), "Off");
}

TEST_F(KeepAwake, AsksGnomeWhereThereIsNoScreenSaver) {
    auto services = session_.startServices({"gnome", "login"});
    auto tool = start();
    expectBoth(services, "gnome inhibit | Keep Awake | 0 | Keep Awake is on | 12", kLoginGrants);
    EXPECT_TRUE(session_.comesToSay("On"));
    ToolSession::click(kBundle);
    expectBoth(services, "gnome give back 101", "login lost");
}

TEST_F(KeepAwake, AsksThePortalWhereThereIsNothingElse) {
    auto services = session_.startServices({"portal", "login"});
    auto tool = start();
    expectBoth(services, "portal inhibit |  | 12 | {'reason': 'Keep Awake is on'}", kLoginGrants);
    EXPECT_TRUE(session_.comesToSay("On"));
    ToolSession::click(kBundle);
    expectBoth(services, "portal give back", "login lost");
}

TEST_F(KeepAwake, AsksTheNextServiceWhenOneRefuses) {
    auto services = session_.startServices({"screensaver=deny", "gnome", "login"});
    auto tool = start();
    EXPECT_TRUE(session_.comesToSay("On"));
    EXPECT_THAT(session_.log(),
                HasSubstr("org.freedesktop.ScreenSaver: the test does not allow it"));
}

TEST_F(KeepAwake, SaysThatTheScreenIsNotHeld) {
    auto services = session_.startServices({"login"});
    auto tool = start();
    EXPECT_TRUE(session_.comesToSay(kScreenMayGoDark));
    EXPECT_THAT(session_.log(), HasSubstr("org.freedesktop.portal.Desktop"));
}

TEST_F(KeepAwake, SaysThatSleepIsNotHeld) {
    auto services = session_.startServices({"screensaver", "login=deny"});
    auto tool = start();
    EXPECT_TRUE(session_.comesToSay(kMaySleep));
    EXPECT_THAT(session_.log(), HasSubstr("org.freedesktop.login1: the test does not allow it"));
}

TEST_F(KeepAwake, SaysThatItIsNotPossibleWithoutAnyService) {
    auto tool = start();
    EXPECT_TRUE(session_.comesToSay(kNotPossible));
    EXPECT_TRUE(tool.isRunning());
}

TEST_F(KeepAwake, SaysThatItIsNotPossibleWithoutABus) {
    auto tool = start(ToolSession::withoutBuses());
    EXPECT_TRUE(session_.comesToSay(kNotPossible));
    EXPECT_THAT(session_.log(), HasSubstr("the session's bus: "));
    EXPECT_THAT(session_.log(), HasSubstr("the system's bus: "));
    EXPECT_TRUE(tool.isRunning());
}

TEST_F(KeepAwake, SaysItInTheUsersLanguage) {
    auto tool = start({{"LANGUAGE", "de"}});
    EXPECT_TRUE(
        session_.comesToSay("Nicht möglich: Nichts lässt hier Programme den Computer wach halten"));
}

TEST_F(KeepAwake, AsksAgainWhenAServiceComesBack) {
    auto services = session_.startServices({"screensaver", "login"});
    auto tool = start();
    expectBoth(services, kScreenSaverGrants, kLoginGrants);
    EXPECT_TRUE(session_.comesToSay("On"));
    services.say("vanish screensaver");
    EXPECT_EQ(services.waitForLine(), "done vanish screensaver");
    EXPECT_EQ(session_.nextText(), kScreenMayGoDark);
    services.say("appear screensaver");
    EXPECT_EQ(services.waitForLine(), "done appear screensaver");
    EXPECT_EQ(services.waitForLine(), kScreenSaverGrants);
    EXPECT_EQ(session_.nextText(), "On");
}

TEST_F(KeepAwake, GivesBackWhatIsGrantedTooLate) {
    auto services = session_.startServices({"screensaver=slow", "login"});
    auto tool = start();
    expectBoth(services, "screensaver asked", kLoginGrants);
    ToolSession::click(kBundle);
    EXPECT_TRUE(session_.comesToSay("Off"));
    EXPECT_EQ(services.waitForLine(), "login lost");
    services.say("answer");
    EXPECT_EQ(services.waitForLine(), kScreenSaverGrants);
    expectBoth(services, "done answer", "screensaver give back 101");
    EXPECT_TRUE(tool.isRunning());
}

TEST_F(KeepAwake, OutlivesTheSessionsBus) {
    auto services = session_.startServices({"screensaver", "login"});
    auto tool = start();
    EXPECT_TRUE(session_.comesToSay("On"));
    session_.endSessionBus();
    EXPECT_EQ(session_.nextText(), kScreenMayGoDark);
    EXPECT_THAT(session_.log(), HasSubstr("the session's bus is gone"));
    EXPECT_TRUE(tool.isRunning());
}

TEST_F(KeepAwake, HoldsTheScreenAgainWhenTheSessionsBusIsBack) {
    auto services = session_.startServices({"screensaver", "login"});
    auto tool = start();
    expectBoth(services, kScreenSaverGrants, kLoginGrants);
    EXPECT_TRUE(session_.comesToSay("On"));
    for (int times = 0; times < 2; ++times) {
        session_.endSessionBus();
        EXPECT_TRUE(session_.comesToSay(kScreenMayGoDark));
        session_.startSessionBus();
        auto next = session_.startServices({"screensaver"});
        EXPECT_EQ(next.waitForLine(), kScreenSaverGrants);
        EXPECT_TRUE(session_.comesToSay("On"));
    }
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.waitForExit(), 0);
}

TEST_F(KeepAwake, AsksNothingOfANewBusWhileItIsOff) {
    auto services = session_.startServices({"screensaver", "login"});
    auto tool = start();
    EXPECT_TRUE(session_.comesToSay("On"));
    session_.endSessionBus();
    EXPECT_TRUE(session_.comesToSay(kScreenMayGoDark));
    ToolSession::click(kBundle);
    EXPECT_TRUE(session_.comesToSay("Off"));
    session_.startSessionBus();
    auto next = session_.startServices({"screensaver"});
    EXPECT_TRUE(ToolSession::fallsAsleep(tool, std::chrono::milliseconds(200)));
    ToolSession::click(kBundle);
    EXPECT_EQ(next.waitForLine(), kScreenSaverGrants) << "the first that it hears";
    EXPECT_TRUE(session_.comesToSay("On"));
}

// A bus that takes connections, as the kernel does for it, and answers nothing.
TEST_F(KeepAwake, EndsWhileTheSessionsBusIsSilent) {
    session_.sessionBus().stop();
    auto tool = start();
    tool.signal(SIGTERM);
    EXPECT_EQ(tool.waitForExit(), 0);
    session_.sessionBus().resume();
    auto services = session_.startServices({"screensaver", "login"});
    auto next = start();
    EXPECT_TRUE(session_.comesToSay("On"));
    session_.sessionBus().stop();
    next.signal(SIGTERM);
    EXPECT_EQ(next.waitForExit(), 0);
    session_.sessionBus().resume();
}

}  // namespace
}  // namespace utilia::test
