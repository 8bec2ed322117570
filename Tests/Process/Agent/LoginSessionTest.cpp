#include "Applications/Agent/Model/LoginSession.h"

#include <cstdlib>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia::agent {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class LoginSessionTest : public testing::Test {
protected:
    ~LoginSessionTest() override { unsetenv("XDG_SESSION_ID"); }
    test::TemporaryHome home_;
};

TEST_F(LoginSessionTest, IsNewInEachSessionUntilEverythingIsDone) {
    for (const LoginSession::Number& session :
         {LoginSession::Number("3"), LoginSession::Number("4"), LoginSession::Number("c2")}) {
        EXPECT_TRUE(LoginSession::isNew(session));
        EXPECT_TRUE(LoginSession::isNew(session)) << "as for an agent that was killed meanwhile";
        LoginSession::finish(session);
        EXPECT_FALSE(LoginSession::isNew(session));
    }
}

TEST_F(LoginSessionTest, IsTheOneBeforeWhereTheLoginManagerDoesNotAnswerForAMoment) {
    ASSERT_TRUE(LoginSession::isNew("3"));
    EXPECT_TRUE(LoginSession::isNew(std::nullopt)) << "not everything was done";
    LoginSession::finish("3");
    EXPECT_FALSE(LoginSession::isNew(std::nullopt));
    EXPECT_FALSE(LoginSession::isNew("3"));
    EXPECT_TRUE(LoginSession::isNew("4"));
}

TEST_F(LoginSessionTest, IsTheSameWhenItsNumberIsLearntLater) {
    ASSERT_TRUE(LoginSession::isNew(std::nullopt));
    LoginSession::finish(std::nullopt);
    EXPECT_FALSE(LoginSession::isNew(std::nullopt));
    EXPECT_FALSE(LoginSession::isNew("3"));
    EXPECT_FALSE(LoginSession::isNew("3"));
    EXPECT_TRUE(LoginSession::isNew("4"));
}

TEST_F(LoginSessionTest, HasItsNumberInTheEnvironmentOrNot) {
    unsetenv("XDG_SESSION_ID");
    EXPECT_EQ(LoginSession::numberInEnvironment(), std::nullopt);
    setenv("XDG_SESSION_ID", "", 1);
    EXPECT_EQ(LoginSession::numberInEnvironment(), std::nullopt);
    setenv("XDG_SESSION_ID", "c2", 1);
    EXPECT_EQ(LoginSession::numberInEnvironment(), "c2");
}

TEST_F(LoginSessionTest, IsNotNewWhereItCannotBeRemembered) {
    test::TestLog log;
    std::filesystem::create_directories(home_.runtime() / "com.korvane.utilia" / "agent-login" /
                                        "x");
    std::filesystem::permissions(home_.runtime() / "com.korvane.utilia",
                                 std::filesystem::perms::owner_all);
    EXPECT_FALSE(LoginSession::isNew("3"));
    EXPECT_THAT(log.lines(), testing::Contains(HasSubstr("no tools are started")));
}

TEST_F(LoginSessionTest, StartsWhatAskedForItAndIsNotTheLaunchersBusiness) {
    const auto tool = [](const std::string& name) {
        ToolEntry entry;
        entry.identifier = "com.korvane.utilia." + name;
        entry.path = "/Applications/" + name + ".app";
        return entry;
    };
    for (const char* name : {"Timer", "WorldClock", "QuickNotes"}) {
        updateSchedulerPlist("com.korvane.utilia." + std::string(name), name,
                             [](Dictionary& record) { record.set("launchAtLogin", true); });
    }
    UtiliaToolLauncher::getDefaults()->setObject(Array{Value("com.korvane.utilia.WorldClock")},
                                                 kLaunchAtLoginToolsKey);
    ToolEntry restricted = tool("QuickNotes");
    restricted.condition = ToolEntry::Condition::Restricted;
    EXPECT_THAT(LoginSession::toolsToStart(
                    {tool("Timer"), tool("WorldClock"), restricted, tool("MoonPhase")}),
                ElementsAre("com.korvane.utilia.Timer"));
}

}  // namespace
}  // namespace utilia::agent
