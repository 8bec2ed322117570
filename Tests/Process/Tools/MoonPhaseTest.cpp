#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataReader.h"
#include "Tests/Process/Tools/RunningTool.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/VirtualDisplay.h"

// The tool Moon Phase in its bundle: a menu icon, and nothing else.

namespace utilia::test {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kBundle = test::places::kMoonPhaseBundle;

class MoonPhaseTest : public testing::Test {
protected:
    ChildProcess start(const std::map<std::string, std::string>& environment = {}) {
        auto tool = session_.start(kBundle, {}, environment);
        session_.askForMenu(kBundle);
        return tool;
    }
    ToolSession session_;
};

TEST_F(MoonPhaseTest, ShowsAMenuIconWithoutADisplayAndWithoutABus) {
    auto tool = start(ToolSession::withoutBuses());
    EXPECT_THAT(session_.nextText(), ContainsRegex("^[A-Z][a-z ]+, [0-9]+ % lit$"));
    EXPECT_TRUE(session_.isMenuIconTemplate());
    EXPECT_FALSE(session_.menuIcon().empty());
}

TEST_F(MoonPhaseTest, LoadsNothingThatShowsWindowsOrSpeaksToABus) {
    const auto loaded = runProgram({"ldd", std::string(kBundle) + "/Contents/Linux/moon-phase"});
    EXPECT_THAT(loaded.text, HasSubstr("libUtiliaCommon"));
    EXPECT_THAT(loaded.text, Not(ContainsRegex("libX11|libwayland|libQt|libgtk|libgio|libdbus")));
}

TEST_F(MoonPhaseTest, TakesAClickAsAReopen) {
    auto tool = start();
    EXPECT_THAT(session_.nextText(), HasSubstr("% lit"));
    ToolSession::click(kBundle);
    EXPECT_THAT(session_.nextText(), ContainsRegex("^Full moon (in [0-9]+ days|tomorrow|today)$"));
    ToolSession::click(kBundle);
    EXPECT_THAT(session_.nextText(), HasSubstr("% lit"));
}

TEST_F(MoonPhaseTest, SpeaksTheUsersLanguage) {
    auto tool = start({{"LANGUAGE", "de"}});
    EXPECT_THAT(session_.nextText(), HasSubstr("beleuchtet"));
}

TEST_F(MoonPhaseTest, SleepsBetweenItsHours) {
    auto tool = start();
    EXPECT_THAT(session_.nextText(), HasSubstr("% lit"));
    EXPECT_TRUE(ToolSession::fallsAsleep(tool, std::chrono::milliseconds(2500)));
    EXPECT_TRUE(tool.isRunning());
}

TEST_F(MoonPhaseTest, LeavesNothingBehind) {
    auto tool = start();
    EXPECT_THAT(session_.nextText(), HasSubstr("% lit"));
    ToolSession::turnOff(kBundle);
    EXPECT_EQ(tool.waitForExit(), 0);
    EXPECT_FALSE(
        ToolPersistentDataReader("Moon Phase.app", "com.korvane.utilia.MoonPhase").isPermanent());
}

}  // namespace
}  // namespace utilia::test
