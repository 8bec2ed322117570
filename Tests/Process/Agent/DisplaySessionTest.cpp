#include "Applications/Agent/Model/DisplaySession.h"

#include <cstdlib>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/Platform/RunLoop.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/PrivateBus.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

// The login manager is the test's, on a bus of the test's.

namespace utilia::agent {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::HasSubstr;

constexpr const char* kBusVariable = "DBUS_SYSTEM_BUS_ADDRESS";

class DisplaySessionTest : public testing::Test {
protected:
    DisplaySessionTest() { setenv(kBusVariable, bus_.address().c_str(), 1); }
    ~DisplaySessionTest() override { unsetenv(kBusVariable); }

    static test::ChildProcess startManager(const std::string& session) {
        test::ChildProcessOptions options;
        options.diesWithTest = true;
        auto manager = test::ChildProcess::program("/usr/bin/python3",
                                                   {test::places::kLoginManager, session}, options);
        EXPECT_EQ(manager.waitForLine(), "ready");
        return manager;
    }
    // "none" where there is no session, "no answer" where nobody answers the test.
    static std::string askedFor(std::chrono::nanoseconds patience = 60s) {
        DisplaySession session;
        std::optional<std::string> all;
        session.ask([&](const std::optional<std::string>& told) { all = told.value_or("none"); },
                    patience);
        EXPECT_EQ(all, std::nullopt) << "never inside the call";
        platform::RunLoop::currentRunLoop().runUntil([&] { return all.has_value(); }, 120s);
        return all.value_or("no answer");
    }

    test::TemporaryHome home_;
    test::TestLog log_;
    test::PrivateBus bus_{home_.path() / "system-bus"};
};

TEST_F(DisplaySessionTest, IsWhatTheLoginManagerSays) {
    auto manager = startManager("3");
    EXPECT_EQ(askedFor(), "3");
    manager.say("c14");
    EXPECT_EQ(manager.waitForLine(), "asked");
    EXPECT_EQ(manager.waitForLine(), "done");
    EXPECT_EQ(askedFor(), "c14");
    EXPECT_THAT(log_.lines(), testing::IsEmpty());
}

TEST_F(DisplaySessionTest, IsNotKnownWhereNobodyTellsIt) {
    EXPECT_EQ(askedFor(), "none") << "nobody has the name";
    EXPECT_THAT(log_.lines(), Contains(HasSubstr("does not tell the session")));
    for (const char* strange : {"none", "strange"}) {
        auto manager = startManager(strange);
        EXPECT_EQ(askedFor(), "none") << strange;
        manager.kill();
    }
    EXPECT_THAT(log_.lines(), Contains(HasSubstr("this user has no graphical session")));
    setenv(kBusVariable, "unix:path=/nowhere/at-all", 1);
    EXPECT_EQ(askedFor(), "none");
    setenv(kBusVariable, "no address", 1);
    EXPECT_EQ(askedFor(), "none");
}

TEST_F(DisplaySessionTest, IsNotWaitedForLongerThanThePatience) {
    auto manager = startManager("silent");
    EXPECT_EQ(askedFor(50ms), "none");
    EXPECT_THAT(log_.lines(), Contains(HasSubstr("it does not answer")));
    bus_.stop();
    EXPECT_EQ(askedFor(50ms), "none") << "the bus takes connections and says nothing";
    bus_.resume();
}

TEST_F(DisplaySessionTest, IsNotToldToThoseWhoDoNotWaitAnyMore) {
    auto manager = startManager("3");
    bool isTold = false;
    {
        DisplaySession session;
        session.ask([&](const std::optional<std::string>&) { isTold = true; });
        platform::RunLoop::currentRunLoop().runFor(1ms);
    }
    EXPECT_EQ(askedFor(), "3");
    EXPECT_FALSE(isTold);
    EXPECT_THAT(log_.lines(), testing::IsEmpty());
}

TEST_F(DisplaySessionTest, EndsInItsOwnAnswer) {
    auto manager = startManager("3");
    auto session = std::make_unique<DisplaySession>();
    session->ask([&](const std::optional<std::string>&) { session.reset(); });
    EXPECT_TRUE(platform::RunLoop::currentRunLoop().runUntil([&] { return !session; }, 60s));
}

}  // namespace
}  // namespace utilia::agent
